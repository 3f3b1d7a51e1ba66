// What the daemon that counts bytes says of each connection.
#include <cerrno>
#include <cstring>

#include "ormel/base/error.h"
#include "ormel/base/log.h"
#include "ormel/host/bus.h"
#include "ormel/web/connection.h"

namespace ormel {

namespace {

constexpr const char* SERVICE = "RateServer";
constexpr const char* METHOD = "all_server_stat";

constexpr system::Wording WORDING{
    ": mib_call failed ret:{status}", "root isn't an object. {line}: {reason}",
    "val isn't an integer. {line}: {reason}", "{service}.{method} failed"};

bool read_counters(const json_t* element, const system::PlainReply& reply, byteStat& out) {
  const json_t* key = json_object_get(element, "key");
  const json_t* rx_bytes = json_object_get(element, "rx_bytes");
  const json_t* tx_bytes = json_object_get(element, "tx_bytes");
  const json_t* rx_rate = json_object_get(element, "rx_rate");
  const json_t* tx_rate = json_object_get(element, "tx_rate");
  if (!json_is_object(element)) {
    ORMEL_LOG(ERROR, "val isn't an object. %d: %s", reply.line, reply.reason.c_str());
    return false;
  }
  if (!json_is_string(key) || !json_is_number(rx_bytes) || !json_is_number(tx_bytes) ||
      !json_is_number(rx_rate) || !json_is_number(tx_rate)) {
    ORMEL_LOG(ERROR, "unexpected type. %d: %s", reply.line, reply.reason.c_str());
    return false;
  }
  out = {json_string_value(key), system::cut_number<uint64_t>(tx_bytes),
         system::cut_number<uint64_t>(rx_bytes), system::cut_number<int>(tx_rate),
         system::cut_number<int>(rx_rate)};
  return true;
}

}  // namespace

std::map<std::string, byteStat> get_all_server_stat() {
  std::map<std::string, byteStat> all;
  const auto [rc, reply] = system::bus_call({__func__, SERVICE, METHOD}, nullptr, WORDING);
  if (reply.status == system::NO_IO) {
    char text[128];
    ORMEL_LOG(ERROR, "%s", strerror_r(errno, text, sizeof text));
  }
  if (rc != NO_ERROR) return all;
  if (!json_is_array(reply.data())) {
    ORMEL_LOG(ERROR, "data isn't an array. %d: %s", reply.line, reply.reason.c_str());
    return all;
  }
  size_t at = 0;
  const json_t* element = nullptr;
  json_array_foreach(reply.data(), at, element) {
    byteStat stat;
    if (read_counters(element, reply, stat)) all.emplace(stat.key, stat);
  }
  return all;
}

}  // namespace ormel
