#include "ormel/drivers/drovik/drovik.h"

#include "ormel/base/address.h"
#include "ormel/base/error.h"
#include "ormel/config/fields.h"
#include "ormel/config/pool.h"
#include "ormel/drivers/factory_psk.h"

namespace ormel::drovik {

namespace {

// clang-format off
constexpr config::Field SERVER_FIELDS[] = {
    {"VPN Port", &ServerConfig::port, DEFAULT_PORT, "port"},
    {"PSK",      &ServerConfig::psk,  "",           "psk", 1},
};
constexpr auto POOL_FIELDS = config::pool_fields("10.6.0.2", "10.6.0.254");
constexpr config::Field DEBUG_FIELDS[] = {{"Debug", &ServerConfig::debug, 0, "debug", 1}};

constexpr config::Field CLIENT_FIELDS[] = {
    {"Domain IP", &ClientConfig::ip,    "",           nullptr, 0, config::LEARNED},
    {"VPN Port",  &ClientConfig::port,  DEFAULT_PORT, "port",  2, config::FOR_ADMIN},
    {"PSK",       &ClientConfig::psk,   "",           "psk",   1, config::FOR_ADMIN},
    {"Debug",     &ClientConfig::debug, 0,            "debug", 3, config::FOR_ADMIN},
};
// clang-format on

}  // namespace

ServerConfig::ServerConfig(int) : DriverServer(DROVIK_SERVER_TYPE) {
  encryption = NONE_ENCRYPTION;
}

int ServerConfig::verify() {
  if (psk.empty()) return error_message(ERR_VALUE, "psk");
  // Compared unsigned, so that a negative number from a damaged file is refused as well.
  if (static_cast<unsigned>(debug) > 1) return error_message(ERR_VALUE, "debug");
  return BaseConfig::verify();
}

std::span<const config::FieldTable> ServerConfig::fields() const {
  static constexpr config::FieldTable TABLES[] = {
      config::BASE_FIELDS, config::SERVER_FIELDS,     SERVER_FIELDS,
      POOL_FIELDS,         config::MANUAL_DNS_FIELDS, DEBUG_FIELDS};
  return TABLES;
}

std::span<const config::FieldTable> ClientConfig::fields() const {
  static constexpr config::FieldTable TABLES[] = {config::BASE_FIELDS, config::CLIENT_FIELDS,
                                                  CLIENT_FIELDS};
  return TABLES;
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

void ClientConfig::save(Conf_dir* conf) {
  ip = system::nslookup(host);  // again for the script, and empty if it does not resolve any more
  DriverClient::save(conf);
}

}  // namespace ormel::drovik
