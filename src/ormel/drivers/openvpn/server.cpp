#include <algorithm>
#include <cstdlib>
#include <unistd.h>

#include "ormel/base/error.h"
#include "ormel/base/lines.h"
#include "ormel/base/text.h"
#include "ormel/config/fields.h"
#include "ormel/config/pool.h"
#include "ormel/drivers/openvpn/openvpn.h"
#include "ormel/host/process.h"

namespace ormel::ovpn {

namespace {

constexpr int LEAST_MSS = 1000;
constexpr int MOST_MSS = 1600;
constexpr int DEFAULT_MSS = 1400;

// clang-format off
constexpr config::Field PORT_FIELDS[] = {
    {"VPN Port",       &ServerConfig::port,     DEFAULT_PORT, "port"},
    {"VPN Proto Type", &ServerConfig::protocol, "UDP",        "proto", 0, config::AS_UPPER},
};
constexpr auto POOL_FIELDS = config::pool_fields("10.8.0.2", "10.8.0.254");
constexpr config::Field SERVER_FIELDS[] = {
    {"Use Manual DNS",             &ServerConfig::manual_dns,          config::ANY_ADDRESS,       "manual_dns"},
    {"Enable Manual DNS",          &ServerConfig::enable_dns,          0,                         "enable_dns"},
    {"Download Status",            &ServerConfig::download_status,     0,                         "download", 0, config::LEARNED},
    {"Re-direct gateway",          &ServerConfig::gateway,             1,                         "gateway"},
    {"Broadcast support",          &ServerConfig::broadcast,           1},
    {"Enable compressed VPN link", &ServerConfig::compress,            1,                         "compress"},
    {"Encryption",                 &ServerConfig::encryption,          MEDIUM_ENCRYPTION,         "enc"},
    {"Signature Algorithm",        &ServerConfig::signature_algorithm, "sha256WithRSAEncryption", "sig_algo"},
    {"MSS",                        &ServerConfig::mss,                 DEFAULT_MSS,               "mss"},
};
// clang-format on

// Prints one line a client: real address, tunnel address, bytes received, bytes sent.
constexpr const char* STATUS_COMMAND =
    "(/bin/echo 'status 2' ; /bin/usleep 100000) | /usr/bin/telnet localhost 7505 | "
    "/bin/awk -F',' '/^CLIENT_LIST/ {print $3,$4,$6,$7}'";

}  // namespace

ServerConfig::ServerConfig(int) : DriverServer(OVPN_SERVER_TYPE) {
  gateway = true;
}

int ServerConfig::verify() {
  return NO_ERROR;
}

int ServerConfig::modify() {
  if (const config::PolyConfig* holder = config::cm.fetch(OVPN_SERVER_TYPE, 0)) {
    const ServerConfig& stored = *holder->cast<ServerConfig>();
    if (signature_algorithm != stored.signature_algorithm) {
      unlink((std::string(KEYS_FOLDER) + "/myserver.crt").c_str());  // the script makes a new one
      download_status = NEW_CERTIFICATE;
    } else if (protocol != stored.protocol || encryption != stored.encryption ||
               port != stored.port || compress != stored.compress) {
      download_status = NEW_PROFILE;
    }
  }
  return DriverServer::modify();
}

std::span<const config::FieldTable> ServerConfig::fields() const {
  static constexpr config::FieldTable TABLES[] = {config::BASE_FIELDS, config::SERVER_FIELDS,
                                                  PORT_FIELDS, POOL_FIELDS, SERVER_FIELDS};
  return TABLES;
}

void ServerConfig::save(Conf_dir* conf) {
  DriverServer::save(conf);
  // The record keeps what it was given: only the file must hold what the daemon can use.
  if (mss < LEAST_MSS || mss > MOST_MSS)
    Conf_Dir_Set_Int(conf, section.c_str(), "MSS", DEFAULT_MSS);
}

Status read_peer_status(const std::string& output) {
  Status peers;
  for (const std::string& line : split_lines(output)) {
    std::vector<std::string> words = split_words(line);
    words.resize(std::max<size_t>(words.size(), 4));  // what is missing is empty, or 0
    peers[words[0]] = {words[0], words[1], std::strtoull(words[3].c_str(), nullptr, 10),
                       std::strtoull(words[2].c_str(), nullptr, 10)};
  }
  return peers;
}

Status ServerConfig::fetch_all_peer_status() {
  std::string output;
  if (system::do_exec(STATUS_COMMAND, output) != 0) return {};
  return read_peer_status(output);
}

}  // namespace ormel::ovpn
