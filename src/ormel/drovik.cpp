#include "ormel/drovik.h"

#include <cstdio>

#include "ormel/config_pool.h"
#include "ormel/error.h"
#include "ormel/factory_psk.h"
#include "ormel/net.h"

namespace ormel::drovik {

ServerConfig::ServerConfig(int) : DriverServer(DROVIK_SERVER_TYPE) {
  encryption = NONE_ENCRYPTION;
}

int ServerConfig::verify() {
  if (psk.empty()) return error_message(ERR_VALUE, "psk");
  // Compared unsigned, so that a negative number from a damaged file is refused as well.
  if (static_cast<unsigned>(debug) > 1) return error_message(ERR_VALUE, "debug");
  return BaseConfig::verify();
}

void ServerConfig::show(USER_TYPE who, JsonValue* out) {
  config::ServerConfig::show(who, out);
  if (out) {
    (*out)["port"] = port;
    (*out)["psk"] = psk;
    (*out)["debug"] = debug;
    return;
  }
  config::print_line("PSK", psk);
  config::print_line("Debug", debug);
  std::puts("");
}

void ServerConfig::load(Conf_dir* conf, pid_t process) {
  config::ServerConfig::load(conf, process);
  const char* where = section.c_str();
  port = Conf_Dir_Get_Int(conf, where, "VPN Port", DEFAULT_PORT);
  psk = Conf_Dir_Get_Str(conf, where, "PSK", "");
  ip_begin = Conf_Dir_Get_Str(conf, where, "Client IP 1", "10.6.0.2");
  ip_end = Conf_Dir_Get_Str(conf, where, "Client IP 2", "10.6.0.254");
  enable_dns = Conf_Dir_Get_Bool(conf, where, "Enable Manual DNS", false) != 0;
  manual_dns = Conf_Dir_Get_Str(conf, where, "Use Manual DNS", config::ANY_ADDRESS);
  debug = Conf_Dir_Get_Int(conf, where, "Debug", 0);
}

void ServerConfig::save(Conf_dir* conf) {
  config::ServerConfig::save(conf);
  const char* where = section.c_str();
  Conf_Dir_Set_Int(conf, where, "VPN Port", port);
  Conf_Dir_Set_Str(conf, where, "PSK", psk.c_str());
  Conf_Dir_Set_Str(conf, where, "Client IP 1", ip_begin.c_str());
  Conf_Dir_Set_Str(conf, where, "Client IP 2", ip_end.c_str());
  Conf_Dir_Set_Bool(conf, where, "Enable Manual DNS", enable_dns);
  Conf_Dir_Set_Str(conf, where, "Use Manual DNS", manual_dns.c_str());
  Conf_Dir_Set_Int(conf, where, "Debug", debug);
}

void ServerConfig::clean_psk() {
  forget_factory_psk(enable, psk);
}

int ClientConfig::verify() {
  if (psk.empty()) return error_message(ERR_VALUE, "psk");
  if (debug < 0 || debug > 1) return error_message(ERR_VALUE, "debug");
  if (port < 1 || port > 65535) return error_message(ERR_PORT_NUMBER, nullptr);
  if (const int rc = config::ClientConfig::verify(); rc != NO_ERROR) return rc;
  return config::check_drovik_client_profile(index, port, system::nslookup(host));
}

void ClientConfig::show(USER_TYPE who, JsonValue* out) {
  config::ClientConfig::show(who, out);
  if (out) {
    if (who != ADMIN_USER) return;
    (*out)["port"] = port;
    (*out)["psk"] = psk;
    (*out)["debug"] = debug;
    return;
  }
  config::print_line("PSK", psk);
  config::print_line("VPN Port", port);
  config::print_line("Debug", debug);
  std::puts("");
}

void ClientConfig::load(Conf_dir* conf, pid_t process) {
  config::ClientConfig::load(conf, process);
  const char* where = section.c_str();
  ip = Conf_Dir_Get_Str(conf, where, "Domain IP", "");
  port = Conf_Dir_Get_Int(conf, where, "VPN Port", DEFAULT_PORT);
  psk = Conf_Dir_Get_Str(conf, where, "PSK", "");
  debug = Conf_Dir_Get_Int(conf, where, "Debug", 0);
}

void ClientConfig::save(Conf_dir* conf) {
  ip = system::nslookup(host);  // afresh for the script, and empty if it does not resolve any more
  config::ClientConfig::save(conf);
  const char* where = section.c_str();
  Conf_Dir_Set_Str(conf, where, "Domain IP", ip.c_str());
  Conf_Dir_Set_Int(conf, where, "VPN Port", port);
  Conf_Dir_Set_Str(conf, where, "PSK", psk.c_str());
  Conf_Dir_Set_Int(conf, where, "Debug", debug);
}

}  // namespace ormel::drovik
