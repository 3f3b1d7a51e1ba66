// What the daemon that counts bytes says of each connection.
#include <cerrno>
#include <cstring>

#include "ormel/handle.h"
#include "ormel/ormel_cgi_connection.h"
#include "ormel/system_bus.h"
#include "ormel/system_log.h"

namespace ormel {

namespace {

constexpr const char* SERVICE = "RateServer";
constexpr const char* METHOD = "all_server_stat";

// The array of counters in a reply, null when it is none.
const json_t* counters_of(const json_t* root, const json_error_t& place) {
  const json_t* error = json_object_get(root, "error");
  const json_t* data = json_object_get(root, "data");
  if (!json_is_object(root)) {
    ORMEL_LOG(ERROR, "root isn't an object. %d: %s", place.line, place.text);
  } else if (!json_is_integer(error)) {
    ORMEL_LOG(ERROR, "val isn't an integer. %d: %s", place.line, place.text);
  } else if (json_integer_value(error) != 0) {
    ORMEL_LOG(ERROR, "%s.%s failed", SERVICE, METHOD);
  } else if (!json_is_array(data)) {
    ORMEL_LOG(ERROR, "data isn't an array. %d: %s", place.line, place.text);
  } else {
    return data;
  }
  return nullptr;
}

bool read_counters(const json_t* element, const json_error_t& place, byteStat& out) {
  const json_t* key = json_object_get(element, "key");
  const json_t* rx_bytes = json_object_get(element, "rx_bytes");
  const json_t* tx_bytes = json_object_get(element, "tx_bytes");
  const json_t* rx_rate = json_object_get(element, "rx_rate");
  const json_t* tx_rate = json_object_get(element, "tx_rate");
  if (!json_is_object(element)) {
    ORMEL_LOG(ERROR, "val isn't an object. %d: %s", place.line, place.text);
    return false;
  }
  if (!json_is_string(key) || !json_is_number(rx_bytes) || !json_is_number(tx_bytes) || !json_is_number(rx_rate) ||
      !json_is_number(tx_rate)) {
    ORMEL_LOG(ERROR, "unexpected type. %d: %s", place.line, place.text);
    return false;
  }
  out = {json_string_value(key), system::cut_number<uint64_t>(tx_bytes), system::cut_number<uint64_t>(rx_bytes),
         system::cut_number<int>(tx_rate), system::cut_number<int>(rx_rate)};
  return true;
}

}  // namespace

std::map<std::string, byteStat> get_all_server_stat() {
  std::map<std::string, byteStat> all;
  const MibIo io{mib_io_create()};
  if (!io) {
    char text[128];
    ORMEL_LOG(ERROR, "%s", strerror_r(errno, text, sizeof text));
    return all;
  }
  if (const int rc = mib_call(SERVICE, METHOD, io.get(), system::BUS_TIMEOUT, system::BUS_FLAG); rc != MIB_SUCCESS) {
    ORMEL_LOG(ERROR, ": mib_call failed ret:%d", rc);
    return all;
  }
  size_t length = 0;
  json_error_t place{};
  const char* text = mib_io_read(io.get(), &length);
  const Json root{text ? json_loadb(text, length, 0, &place) : nullptr};

  size_t at = 0;
  const json_t* element = nullptr;
  json_array_foreach(counters_of(root.get(), place), at, element) {
    byteStat stat;
    if (read_counters(element, place, stat)) all.emplace(stat.key, stat);
  }
  return all;
}

}  // namespace ormel
