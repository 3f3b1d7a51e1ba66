#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <unistd.h>

#include "ormel/config_pool.h"
#include "ormel/error.h"
#include "ormel/ovpn.h"
#include "ormel/system_process.h"
#include "ormel/text.h"

namespace ormel::ovpn {

namespace {

constexpr int NEW_PROFILE = 2;
constexpr int NEW_CERTIFICATE = 3;
constexpr int LEAST_MSS = 1000;
constexpr int MOST_MSS = 1600;
constexpr int DEFAULT_MSS = 1400;

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
    } else if (protocol != stored.protocol || encryption != stored.encryption || port != stored.port ||
               compress != stored.compress) {
      download_status = NEW_PROFILE;
    }
  }
  return DriverServer::modify();
}

void ServerConfig::show(USER_TYPE who, JsonValue* out) {
  config::ServerConfig::show(who, out);
  if (!out) {
    std::puts("");
    return;
  }
  (*out)["enc"] = static_cast<int32_t>(encryption);
  (*out)["mss"] = mss;
  (*out)["port"] = port;
  (*out)["proto"] = protocol;
  (*out)["gateway"] = gateway;
  (*out)["compress"] = compress;
  (*out)["download"] = download_status;
  (*out)["sig_algo"] = signature_algorithm;
}

void ServerConfig::load(Conf_dir* conf, pid_t process) {
  config::ServerConfig::load(conf, process);
  const char* where = section.c_str();
  port = Conf_Dir_Get_Int(conf, where, "VPN Port", DEFAULT_PORT);
  protocol = option::to_upper(Conf_Dir_Get_Str(conf, where, "VPN Proto Type", "udp"));
  ip_begin = Conf_Dir_Get_Str(conf, where, "Client IP 1", "10.8.0.2");
  ip_end = Conf_Dir_Get_Str(conf, where, "Client IP 2", "10.8.0.254");
  manual_dns = Conf_Dir_Get_Str(conf, where, "Use Manual DNS", config::ANY_ADDRESS);
  enable_dns = Conf_Dir_Get_Bool(conf, where, "Enable Manual DNS", false) != 0;
  download_status = Conf_Dir_Get_Int(conf, where, "Download Status", 0);
  gateway = Conf_Dir_Get_Bool(conf, where, "Re-direct gateway", true) != 0;
  broadcast = Conf_Dir_Get_Bool(conf, where, "Broadcast support", true) != 0;
  compress = Conf_Dir_Get_Bool(conf, where, "Enable compressed VPN link", true) != 0;
  encryption = static_cast<ENCRYPTION>(Conf_Dir_Get_Int(conf, where, "Encryption", MEDIUM_ENCRYPTION));
  signature_algorithm = Conf_Dir_Get_Str(conf, where, "Signature Algorithm", "sha256WithRSAEncryption");
  mss = Conf_Dir_Get_Int(conf, where, "MSS", DEFAULT_MSS);
}

void ServerConfig::save(Conf_dir* conf) {
  config::ServerConfig::save(conf);
  const char* where = section.c_str();
  Conf_Dir_Set_Int(conf, where, "VPN Port", port);
  Conf_Dir_Set_Str(conf, where, "VPN Proto Type", protocol.c_str());
  Conf_Dir_Set_Str(conf, where, "Client IP 1", ip_begin.c_str());
  Conf_Dir_Set_Str(conf, where, "Client IP 2", ip_end.c_str());
  Conf_Dir_Set_Str(conf, where, "Use Manual DNS", manual_dns.c_str());
  Conf_Dir_Set_Bool(conf, where, "Enable Manual DNS", enable_dns);
  Conf_Dir_Set_Int(conf, where, "Download Status", download_status);
  Conf_Dir_Set_Bool(conf, where, "Re-direct gateway", gateway);
  Conf_Dir_Set_Bool(conf, where, "Broadcast support", broadcast);
  Conf_Dir_Set_Bool(conf, where, "Enable compressed VPN link", compress);
  Conf_Dir_Set_Int(conf, where, "Encryption", encryption);
  Conf_Dir_Set_Str(conf, where, "Signature Algorithm", signature_algorithm.c_str());
  // The record keeps what it was given: only the file must hold what the daemon can use.
  Conf_Dir_Set_Int(conf, where, "MSS", mss < LEAST_MSS || mss > MOST_MSS ? DEFAULT_MSS : mss);
}

Status read_peer_status(const std::string& output) {
  Status peers;
  for (const std::string& line : option::split_lines(output)) {
    std::vector<std::string> words = option::split_words(line);
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
