// The fields of a record as tables: one row says the key in vpn.conf, the member, its default, its
// name in a document, its place in the text, and who sees it. `BaseConfig` loads, saves and shows
// every record by these rows alone; a class overrides what a row cannot say.
#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <variant>

#include "ormel/config/record.h"

namespace ormel::config {

// What is special about a field; the sum of any of them.
enum Trait : unsigned {
  UNSTORED = 1,    // not in the file
  UNSAVED = 2,     // read, but not written
  AS_NUMBER = 4,   // a truth value that the file holds as 0 or 1
  AS_BASE64 = 8,   // encoded in the file
  AS_UPPER = 16,   // turned to upper case when it is read
  AS_LOWER = 32,   // turned to lower case when it is read
  FOR_ADMIN = 64,  // in the document of an administrator alone
  IF_UP = 128,     // shown as empty or 0 while the record is down
  LEARNED = 256,   // found out by a tunnel or by a look-up: no one has set it
};

struct Field {
  using Member =
      std::variant<bool BaseConfig::*, int BaseConfig::*, int64_t BaseConfig::*,
                   uint64_t BaseConfig::*, std::string BaseConfig::*, ENCRYPTION BaseConfig::*,
                   AUTHENTICATION BaseConfig::*, STATUS BaseConfig::*>;

  const char* key;        // in the file and in the text
  Member member;          // used on records of the class that has it only
  int number = 0;         // the default of what is no text
  const char* text = "";  // the default of a text
  const char* json;       // name in the document, null for a field that is not there
  int line;  // place among the lines of its table in the text, from 1; 0 for a field that is not
             // there
  unsigned traits;

  template <typename Record>
  constexpr Field(const char* name, std::string Record::*field, const char* fallback,
                  const char* document = nullptr, int place = 0, unsigned special = 0)
      : key(name),
        member(static_cast<std::string BaseConfig::*>(field)),
        text(fallback),
        json(document),
        line(place),
        traits(special) {}
  template <typename Record, typename Value>
  constexpr Field(const char* name, Value Record::*field, int fallback,
                  const char* document = nullptr, int place = 0, unsigned special = 0)
      : key(name),
        member(static_cast<Value BaseConfig::*>(field)),
        number(fallback),
        json(document),
        line(place),
        traits(special) {}

  [[nodiscard]] constexpr bool is(Trait trait) const { return (traits & trait) != 0; }
  // The row is a key of the file that `save` writes.
  [[nodiscard]] constexpr bool is_saved() const { return !is(UNSTORED) && !is(UNSAVED); }
};

// The member of a row as text: a truth value as "true" or "false".
[[nodiscard]] std::string value_text(const BaseConfig& record, const Field& row);

// Forgets what only a live tunnel has.
void forget_live_values(BaseConfig& record);

// Whether only tunnels and look-ups write this key of a section of vpn.conf, and no one sets it.
[[nodiscard]] bool is_live_key(std::string_view section, std::string_view key);

// Whether two records of one type hold the same settings; what was learned does not count.
[[nodiscard]] bool same_settings(const BaseConfig& one, const BaseConfig& other);

inline constexpr Field BASE_FIELDS[] = {{"Enable", &BaseConfig::enable, 0, "enable", 1}};

// clang-format off
inline constexpr Field SERVER_FIELDS[] = {
    // key            member                   default  document   line
    {"Max Client",    &ServerConfig::maximum,  5,       "maximum"},
    {"interface",     &ServerConfig::out_eif,  "all",   "out_eif"},
    {"interface lan", &ServerConfig::out_lan,  0},
};

inline constexpr Field MANUAL_DNS_FIELDS[] = {
    {"Enable Manual DNS", &ServerConfig::enable_dns, 0,           "enable_dns"},
    {"Use Manual DNS",    &ServerConfig::manual_dns, ANY_ADDRESS, "manual_dns"},
};

// The addresses of a server's clients, with the default of the protocol.
constexpr std::array<Field, 2> pool_fields(const char* first, const char* last) {
  return {{{"Client IP 1", &ServerConfig::ip_begin, first, "ip_pool"}, {"Client IP 2", &ServerConfig::ip_end, last}}};
}

inline constexpr Field CLIENT_FIELDS[] = {
    // key              member                       default                document        line
    {"Mask",            &ClientConfig::mask,         DEFAULT_MASK,          "mask",         13},
    {"Index",           &ClientConfig::index,        0,                     "index",        1},
    {"FENRO Port",      &ClientConfig::fenro_port,   0,                     "fenro_port",   2},
    {"Last Error",      &ClientConfig::last_error,   0,                     "last_error",   3,  LEARNED},
    {"Imported",        &ClientConfig::imported,     0,                     nullptr,        0,  AS_NUMBER},
    {"Reconnect",       &ClientConfig::reconnect,    1,                     "reconnect",    4,  AS_NUMBER},
    {"Custom Mask",     &ClientConfig::custom_mask,  0,                     "custom_mask",  5},
    {"Profile File",    &ClientConfig::name,         "",                    "profile",      6},
    {"Name",            &ClientConfig::user,         "",                    "user",         7,  FOR_ADMIN},
    {"AccessCode",      &ClientConfig::pass,         "",                    "pass",         0,  FOR_ADMIN | AS_BASE64},
    {"Server Address",  &ClientConfig::host,         "",                    "server_ip",    8},
    {"Real Address",    &ClientConfig::real_ip,      "",                    "real_ip",      18, IF_UP},
    {"LocalIP",         &ClientConfig::local_ip,     "",                    "local_ip",     19, IF_UP},
    {"RemoteIP",        &ClientConfig::remote_ip,    "",                    "remote_ip",    0,  IF_UP},
    {"Country Code",    &ClientConfig::country_code, "",                    "country_code", 21, IF_UP},
    {"Status",          &ClientConfig::status,       DISCONNECTED_STATUS,   "status",       9,  LEARNED},
    {"Time Stamp",      &ClientConfig::timestamp,    0,                     nullptr,        20, IF_UP},
    {"Up",              &ClientConfig::up,           "",                    nullptr,        14},
    {"Down",            &ClientConfig::down,         "",                    nullptr,        15},
    {"Metadata",        &ClientConfig::metadata,     "",                    "metadata",     11},
    {"Vendor",          &ClientConfig::vendor,       "",                    "vendor",       10},
    {"DNS Server",      &ClientConfig::dns_server,   "",                    "dns_server",   12, LEARNED},
    {"TX",              &ClientConfig::tx,           0,                     "tx_total",     16, UNSTORED | IF_UP},
    {"RX",              &ClientConfig::rx,           0,                     "rx_total",     17, UNSTORED | IF_UP},
    {"TX Rate",         &ClientConfig::tx_rate,      0,                     "tx_rate",      0,  UNSTORED | IF_UP},
    {"RX Rate",         &ClientConfig::rx_rate,      0,                     "rx_rate",      0,  UNSTORED | IF_UP},
};
// clang-format on

}  // namespace ormel::config
