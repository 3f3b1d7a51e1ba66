// What the two tunnels that carry PPP have in common: the login methods, the range of the segment
// size, and their fields.
#pragma once

#include <string>

#include "ormel/config/driver.h"
#include "ormel/config/fields.h"

namespace ormel::ppp {

constexpr int DEFAULT_MSS = 1300;  // TCP maximum segment size, bytes
constexpr int LEAST_MSS = 1000;
constexpr int MOST_MSS = 1400;

class ServerConfig : public config::DriverServer {
 public:
  int mss = DEFAULT_MSS;  // TCP maximum segment size, bytes; the PPTP and the L2TP server share it

  using DriverServer::DriverServer;

  int verify() override;
  [[nodiscard]] int* shared_mss() override { return &mss; }
};

class ClientConfig : public config::DriverClient {
 public:
  std::string ip;  // what `host` resolved to when the record was last saved

  // `peer` begins the name of the file that the script writes for this profile, before the index.
  ClientConfig(TYPE kind, int slot, const char* peer) : DriverClient(kind, slot), peer_(peer) {}

  int verify() override;
  void save(Conf_dir* conf) override;
  void remove() override;

 private:
  const char* peer_;
};

// clang-format off
// "Mabual" and "Authentcation" are the keys in existing files; the start scripts read them so.
inline constexpr config::Field MANUAL_DNS_FIELDS[] = {
    {"Enable Mabual DNS", &ServerConfig::enable_dns, 0,                   "enable_dns"},
    {"Mabual DNS",        &ServerConfig::manual_dns, config::ANY_ADDRESS, "manual_dns"},
};

inline constexpr config::Field SERVER_LOGIN_FIELDS[] = {
    {"Authentcation", &ServerConfig::authentication, MSCHAPV2_AUTHENTICATION, "auth", 1},
    {"MSS",           &ServerConfig::mss,            DEFAULT_MSS,             "mss",  2},
};

inline constexpr config::Field CLIENT_ADDRESS_FIELDS[] = {
    {"Domain IP", &ClientConfig::ip, "", nullptr, 0, config::LEARNED}};

inline constexpr config::Field CLIENT_LOGIN_FIELDS[] = {
    {"Authentcation", &ClientConfig::authentication, MSCHAPV2_AUTHENTICATION, "auth", 1},
};
// clang-format on

}  // namespace ormel::ppp
