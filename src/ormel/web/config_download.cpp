// What a client of the OpenVPN server downloads: a ready profile, or the certificate alone.
#include <cstdio>
#include <string>

#include <fenro/host.h>

#include "ormel/base/file.h"
#include "ormel/base/handle.h"
#include "ormel/base/lines.h"
#include "ormel/base/text.h"
#include "ormel/config/pool.h"
#include "ormel/drivers/openvpn/openvpn.h"
#include "ormel/web/config.h"
#include "ormel/web/routes.h"

namespace ormel::cgi::config {

using ormel::config::cm;

namespace {

constexpr const char* HOST_NAME = "/proc/sys/kernel/hostname";
constexpr int ADDRESS_SIZE = 255;
constexpr const char* UDP = "UDP";  // the server's protocol as it is loaded
constexpr const char* WEAK_SIGNATURE =
    "sha1WithRSAEncryption";  // refused by clients that keep to today's level
constexpr const char* WEAK_LEVEL = ":@SECLEVEL=0";

// What the files are made of.
struct Source {
  const ovpn::ServerConfig* server = nullptr;
  std::string host;
  std::string certificate;
};

int read_source(Source& source) {
  const ormel::config::PolyConfig* stored = cm.fetch(OVPN_SERVER_TYPE, 0);
  if (!stored) return ERR_CONFIGURE_INDEX;
  source.server = stored->cast<ovpn::ServerConfig>();
  std::string name;
  if (!system::read_file(HOST_NAME, name) || trim(name).empty()) return ERR_REGULAR_FILE;
  source.host = split_words(name).front();
  const std::string path = std::string(ovpn::KEYS_FOLDER) + "/ca.crt";
  return system::read_file(path.c_str(), source.certificate) ? NO_ERROR : ERR_REGULAR_FILE;
}

std::string head_for(const std::string& file) {
  return "Content-type: application/octet-stream\r\nContent-Disposition: attachment; filename=" +
         file + "\r\nContent-Transfer-Encoding: binary\r\n";
}

std::string profile_text(const Source& source, const char* address) {
  const ovpn::ServerConfig& server = *source.server;
  const auto stored = static_cast<unsigned int>(server.encryption);
  const unsigned int level =
      stored < std::size(ovpn::CIPHERS) ? stored : static_cast<unsigned int>(MEDIUM_ENCRYPTION);
  const bool udp = server.protocol == UDP;
  const char* const strong = ovpn::tls_ciphers();
  const char* const tls_ciphers[] = {"NONE", strong, strong};  // by level, as the ciphers
  char* text = nullptr;
  const int length = asprintf(
      &text,
      "## How to setup OpenVPN client?\n"
      "## 1. Install OpenVPN software on your platform.\n"
      "## 2. Double click %s.ovpn file to create new connection profile.\n"
      "## 3. Type username and password while connection.\n"
      "\n"
      "client\n"
      "dev tun\n"
      "script-security 3\n"
      "remote %s %d\n"
      "resolv-retry infinite\n"
      "nobind\n"
      "auth-nocache\n"
      "auth-user-pass\n"
      "remote-cert-tls server\n"
      "reneg-sec 0\n"
      "cipher %s\n"
      "tls-cipher %s%s\n"
      "%s\n"
      "proto %s\n"
      "%s\n",
      source.host.c_str(), address, server.port, ovpn::CIPHERS[level], tls_ciphers[level],
      server.signature_algorithm == WEAK_SIGNATURE ? WEAK_LEVEL : "",
      server.compress ? "comp-lzo" : "", udp ? "udp" : "tcp", udp ? "explicit-exit-notify 1" : "");
  const CString owner{length < 0 ? nullptr : text};
  return owner ? owner.get() : "";
}

}  // namespace

int make_profile(Download& file, const std::string& host) {
  Source source;
  if (const int rc = read_source(source); rc != NO_ERROR) return rc;
  char address[ADDRESS_SIZE] = "";
  if (host.empty() && Get_External_IP(address, ADDRESS_SIZE) < 0) return ERR_NO_NETWORK;
  file.head = head_for(source.host + ".ovpn");
  file.body = profile_text(source, host.empty() ? address : host.c_str()) + "<ca>\n" +
              source.certificate + "</ca>\n";
  return NO_ERROR;
}

namespace {

int send_certificate(const Request&, Download& file) {
  Source source;
  if (const int rc = read_source(source); rc != NO_ERROR) return rc;
  file.head = head_for(source.host + ".ca");
  file.body = std::move(source.certificate);
  return NO_ERROR;
}

int send_profile(const Request&, Download& file) {
  return make_profile(file, "");
}

// The client has the newest file now.
void note_delivery() {
  cm.fetch(OVPN_SERVER_TYPE, 0)->cast<ovpn::ServerConfig>()->download_status = 0;
  std::ignore = cm.save();  // the download has succeeded either way
}

constexpr Route ROWS[] = {
    {"/ormel/config/download", ADMINISTRATOR, CHANGES, download<send_profile, note_delivery>},
    {"/ormel/config/downloadcert", ADMINISTRATOR, CHANGES,
     download<send_certificate, note_delivery>},
};

}  // namespace

const Routes DOWNLOADS{ROWS};

}  // namespace ormel::cgi::config
