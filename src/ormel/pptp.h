// The PPTP driver.
#pragma once

#include "ormel/config_driver.h"
#include "ormel/ppp.h"

namespace ormel::pptp {

class ServerConfig : public config::DriverServer {
 public:
  bool broadcast = false;      // relay broadcasts to clients; kept and stored only
  int mss = ppp::DEFAULT_MSS;  // TCP maximum segment size, bytes; shared with the L2TP server

  explicit ServerConfig(int);

  int verify() override;
  void show(USER_TYPE who, JsonValue* out) override;
  void load(Conf_dir* conf, pid_t process) override;
  void save(Conf_dir* conf) override;
};

class ClientConfig : public config::DriverClient {
 public:
  std::string ip;  // what `host` resolved to when the record was last saved

  explicit ClientConfig(int slot) : DriverClient(PPTP_CLIENT_TYPE, slot) {}

  int verify() override;
  void show(USER_TYPE who, JsonValue* out) override;
  void load(Conf_dir* conf, pid_t process) override;
  void save(Conf_dir* conf) override;
  void remove() override;
};

}  // namespace ormel::pptp
