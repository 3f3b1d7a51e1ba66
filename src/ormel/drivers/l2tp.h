// The L2TP/IPsec driver.
#pragma once

#include <string>

#include "ormel/drivers/ppp.h"

namespace ormel::l2tp {

class ServerConfig : public ppp::ServerConfig {
 public:
  std::string psk;  // IPsec pre-shared key, stored as it is

  explicit ServerConfig(int);

  int verify() override;
  [[nodiscard]] std::span<const config::FieldTable> fields() const override;
  void clean_psk() override;
};

class ClientConfig : public ppp::ClientConfig {
 public:
  int port = 0;     // unused
  std::string psk;  // IPsec pre-shared key, stored as it is

  explicit ClientConfig(int slot) : ppp::ClientConfig(L2TP_CLIENT_TYPE, slot, "l2tpclient") {}

  int verify() override;
  [[nodiscard]] std::span<const config::FieldTable> fields() const override;
};

// Hook entries for a host program that links this code; no personality reaches them.
inline int up(int, char**) {
  return 0;
}
inline int down(int, char**) {
  return 0;
}

}  // namespace ormel::l2tp
