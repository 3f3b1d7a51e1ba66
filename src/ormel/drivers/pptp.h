// The PPTP driver.
#pragma once

#include "ormel/drivers/ppp.h"

namespace ormel::pptp {

class ServerConfig : public ppp::ServerConfig {
 public:
  bool broadcast = false;  // relay broadcasts to clients; kept and stored only

  explicit ServerConfig(int) : ppp::ServerConfig(PPTP_SERVER_TYPE) {}

  [[nodiscard]] std::span<const config::FieldTable> fields() const override;
};

class ClientConfig : public ppp::ClientConfig {
 public:
  explicit ClientConfig(int slot) : ppp::ClientConfig(PPTP_CLIENT_TYPE, slot, "pptpclient") {}

  int verify() override;
  [[nodiscard]] std::span<const config::FieldTable> fields() const override;
};

}  // namespace ormel::pptp
