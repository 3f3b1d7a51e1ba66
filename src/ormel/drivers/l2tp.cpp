#include "ormel/drivers/l2tp.h"

#include "ormel/base/error.h"
#include "ormel/drivers/factory_psk.h"

namespace ormel::l2tp {

namespace {

constexpr auto POOL_FIELDS = config::pool_fields("10.2.0.2", "10.2.0.254");

constexpr config::Field SERVER_FIELDS[] = {{"PSK", &ServerConfig::psk, "", "psk", 1}};

constexpr config::Field CLIENT_FIELDS[] = {
    {"PSK", &ClientConfig::psk, "", "psk", 1, config::FOR_ADMIN}};

}  // namespace

ServerConfig::ServerConfig(int) : ppp::ServerConfig(L2TP_SERVER_TYPE) {
  encryption = NONE_ENCRYPTION;
}

std::span<const config::FieldTable> ServerConfig::fields() const {
  static constexpr config::FieldTable TABLES[] = {config::BASE_FIELDS,    config::SERVER_FIELDS,
                                                  SERVER_FIELDS,          POOL_FIELDS,
                                                  ppp::MANUAL_DNS_FIELDS, ppp::SERVER_LOGIN_FIELDS};
  return TABLES;
}

std::span<const config::FieldTable> ClientConfig::fields() const {
  static constexpr config::FieldTable TABLES[] = {config::BASE_FIELDS, config::CLIENT_FIELDS,
                                                  ppp::CLIENT_ADDRESS_FIELDS, CLIENT_FIELDS,
                                                  ppp::CLIENT_LOGIN_FIELDS};
  return TABLES;
}

int ServerConfig::verify() {
  if (psk.empty()) return error_message(ERR_VALUE, "psk");
  return ppp::ServerConfig::verify();
}

void ServerConfig::clean_psk() {
  forget_factory_psk(enable, psk);
}

int ClientConfig::verify() {
  if (psk.empty()) return error_message(ERR_VALUE, "psk");
  return ppp::ClientConfig::verify();
}

}  // namespace ormel::l2tp
