// The L2TP/IPsec driver.
#pragma once

#include <string>

#include "ormel/config_driver.h"
#include "ormel/ppp.h"

namespace ormel::l2tp {

class ServerConfig : public config::DriverServer {
 public:
  std::string psk;             // IPsec pre-shared key, stored as it is
  int mss = ppp::DEFAULT_MSS;  // TCP maximum segment size, bytes; shared with the PPTP server

  explicit ServerConfig(int);

  int verify() override;
  void show(USER_TYPE who, JsonValue* out) override;
  void load(Conf_dir* conf, pid_t process) override;
  void save(Conf_dir* conf) override;
  void clean_psk() override;
};

class ClientConfig : public config::DriverClient {
 public:
  std::string ip;   // what `host` resolved to when the record was last saved
  int port = 0;     // unused
  std::string psk;  // IPsec pre-shared key, stored as it is

  explicit ClientConfig(int slot) : DriverClient(L2TP_CLIENT_TYPE, slot) {}

  int verify() override;
  void show(USER_TYPE who, JsonValue* out) override;
  void load(Conf_dir* conf, pid_t process) override;
  void save(Conf_dir* conf) override;
  void remove() override;
};

// Hook entries for a host program that links this code; no personality reaches them.
inline int up(int, char**) {
  return 0;
}
inline int down(int, char**) {
  return 0;
}

}  // namespace ormel::l2tp
