#include "ormel/drivers/pptp.h"

#include "ormel/base/error.h"

namespace ormel::pptp {

namespace {

constexpr auto POOL_FIELDS = config::pool_fields("10.0.0.2", "10.0.0.254");

constexpr config::Field SERVER_FIELDS[] = {
    {"Broadcast", &ServerConfig::broadcast, 1},
    {"Encryption", &ServerConfig::encryption, HIGH_ENCRYPTION, "enc"},
};

constexpr config::Field CLIENT_FIELDS[] = {
    {"Encryption", &ClientConfig::encryption, HIGH_ENCRYPTION, "enc", 1}};

}  // namespace

std::span<const config::FieldTable> ServerConfig::fields() const {
  static constexpr config::FieldTable TABLES[] = {config::BASE_FIELDS, config::SERVER_FIELDS,
                                                  POOL_FIELDS,         ppp::MANUAL_DNS_FIELDS,
                                                  SERVER_FIELDS,       ppp::SERVER_LOGIN_FIELDS};
  return TABLES;
}

std::span<const config::FieldTable> ClientConfig::fields() const {
  static constexpr config::FieldTable TABLES[] = {config::BASE_FIELDS, config::CLIENT_FIELDS,
                                                  ppp::CLIENT_ADDRESS_FIELDS, CLIENT_FIELDS,
                                                  ppp::CLIENT_LOGIN_FIELDS};
  return TABLES;
}

int ClientConfig::verify() {
  // Compared unsigned, so that a negative number from a damaged file is refused as well.
  if (static_cast<unsigned>(encryption) > HIGH_ENCRYPTION)
    return error_message(ERR_ENCRYPTION, nullptr);
  return ppp::ClientConfig::verify();
}

}  // namespace ormel::pptp
