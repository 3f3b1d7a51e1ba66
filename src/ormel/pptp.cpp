#include "ormel/pptp.h"

#include <cstdio>
#include <unistd.h>

#include "ormel/error.h"
#include "ormel/net.h"

namespace ormel::pptp {

ServerConfig::ServerConfig(int) : DriverServer(PPTP_SERVER_TYPE) {}

int ServerConfig::verify() {
  if (!ppp::authentication_known(authentication)) return error_message(ERR_AUTHENTICATION, nullptr);
  if (!ppp::mss_fits(mss)) return error_message(ERR_VALUE, "mss");
  return BaseConfig::verify();
}

void ServerConfig::show(USER_TYPE who, JsonValue* out) {
  config::ServerConfig::show(who, out);
  if (out) {
    (*out)["enc"] = static_cast<int32_t>(encryption);
    (*out)["auth"] = static_cast<int32_t>(authentication);
    (*out)["mss"] = mss;
    return;
  }
  config::print_line("Authentcation", authentication);
  config::print_line("MSS", mss);
  std::puts("");
}

void ServerConfig::load(Conf_dir* conf, pid_t process) {
  config::ServerConfig::load(conf, process);
  const char* where = section.c_str();
  ip_begin = Conf_Dir_Get_Str(conf, where, "Client IP 1", "10.0.0.2");
  ip_end = Conf_Dir_Get_Str(conf, where, "Client IP 2", "10.0.0.254");
  // "Mabual" and "Authentcation" are the keys in existing files; the start scripts read them so.
  enable_dns = Conf_Dir_Get_Bool(conf, where, "Enable Mabual DNS", false) != 0;
  manual_dns = Conf_Dir_Get_Str(conf, where, "Mabual DNS", config::ANY_ADDRESS);
  broadcast = Conf_Dir_Get_Bool(conf, where, "Broadcast", true) != 0;
  encryption = static_cast<ENCRYPTION>(Conf_Dir_Get_Int(conf, where, "Encryption", HIGH_ENCRYPTION));
  authentication = static_cast<AUTHENTICATION>(Conf_Dir_Get_Int(conf, where, "Authentcation", MSCHAPV2_AUTHENTICATION));
  mss = Conf_Dir_Get_Int(conf, where, "MSS", ppp::DEFAULT_MSS);
}

void ServerConfig::save(Conf_dir* conf) {
  config::ServerConfig::save(conf);
  const char* where = section.c_str();
  Conf_Dir_Set_Str(conf, where, "Client IP 1", ip_begin.c_str());
  Conf_Dir_Set_Str(conf, where, "Client IP 2", ip_end.c_str());
  Conf_Dir_Set_Bool(conf, where, "Enable Mabual DNS", enable_dns);
  Conf_Dir_Set_Str(conf, where, "Mabual DNS", manual_dns.c_str());
  Conf_Dir_Set_Bool(conf, where, "Broadcast", broadcast);
  Conf_Dir_Set_Int(conf, where, "Encryption", encryption);
  Conf_Dir_Set_Int(conf, where, "Authentcation", authentication);
  Conf_Dir_Set_Int(conf, where, "MSS", mss);
}

int ClientConfig::verify() {
  // Compared unsigned, so that a negative number from a damaged file is refused as well.
  if (static_cast<unsigned>(encryption) > HIGH_ENCRYPTION) return error_message(ERR_ENCRYPTION, nullptr);
  if (!ppp::authentication_known(authentication)) return error_message(ERR_AUTHENTICATION, nullptr);
  return config::ClientConfig::verify();
}

void ClientConfig::remove() {
  unlink((std::string(config::PEERS_FOLDER) + "/pptpclient" + std::to_string(index)).c_str());
  announce_removal();
}

void ClientConfig::show(USER_TYPE who, JsonValue* out) {
  config::ClientConfig::show(who, out);
  if (out) {
    (*out)["enc"] = static_cast<int32_t>(encryption);
    (*out)["auth"] = static_cast<int32_t>(authentication);
    return;
  }
  config::print_line("Encryption", encryption);
  config::print_line("Authentcation", authentication);
  std::puts("");
}

void ClientConfig::load(Conf_dir* conf, pid_t process) {
  config::ClientConfig::load(conf, process);
  const char* where = section.c_str();
  ip = Conf_Dir_Get_Str(conf, where, "Domain IP", "");
  encryption = static_cast<ENCRYPTION>(Conf_Dir_Get_Int(conf, where, "Encryption", HIGH_ENCRYPTION));
  authentication = static_cast<AUTHENTICATION>(Conf_Dir_Get_Int(conf, where, "Authentcation", MSCHAPV2_AUTHENTICATION));
}

void ClientConfig::save(Conf_dir* conf) {
  ip = system::nslookup(host);  // afresh for the script, and empty if it does not resolve any more
  config::ClientConfig::save(conf);
  const char* where = section.c_str();
  Conf_Dir_Set_Str(conf, where, "Domain IP", ip.c_str());
  Conf_Dir_Set_Int(conf, where, "Encryption", encryption);
  Conf_Dir_Set_Int(conf, where, "Authentcation", authentication);
}

}  // namespace ormel::pptp
