// What the driver asks of the tunnel's own daemon on the service bus.
#include <cerrno>
#include <cstring>

#include "ormel/base/error.h"
#include "ormel/base/json.h"
#include "ormel/base/log.h"
#include "ormel/drivers/drovik/drovik.h"
#include "ormel/host/bus.h"

namespace ormel::drovik {

namespace {

constexpr const char* SERVICE = "MorviServer";

// The lines are worded by method.
constexpr system::Wording BYTES_WORDING{
    "mib_call failed ret:{status}", "root isn't an object. {line}: {reason}",
    "val isn't an integer. {line}: {reason}", "{service}.{method} failed {reply}"};
constexpr system::Wording KICK_WORDING{
    BYTES_WORDING.no_reply, "root isn't a object. {line}: {reason}",
    "val isn't a integer. {line}: {reason}", BYTES_WORDING.refused};

MibIo make_buffer() {
  MibIo io{mib_io_create()};
  if (!io) ORMEL_LOG(ERROR, "mib_io_create failed");
  return io;
}

// A count as an unsigned number; a negative one wraps.
unsigned long long to_bytes(const json_t* count) {
  const double number = json_number_value(count);
  return number < 0 ? static_cast<unsigned long long>(static_cast<long long>(number))
                    : static_cast<unsigned long long>(number);
}

}  // namespace

int drovik_server_kick_client(const char* mac) {
  const MibIo io = make_buffer();
  if (!io) return ERR_MIB_IO_FAILED;
  // The client chose its identifier: escaped, it cannot add a member to the request or break it.
  const std::string client = escape_json(system::valid_utf8(mac ? mac : ""));
  if (mib_io_printf(io.get(), "{\"mac\":\"%s\"}", client.c_str()) < 0) {
    ORMEL_LOG(ERROR, "mib_io_printf failed, error: %s", std::strerror(errno));
    return ERR_MIB_IO_FAILED;
  }
  return system::judged_call({__func__, SERVICE, "disconnect", "", system::BUS_SHORT_TIMEOUT}, io,
                             KICK_WORDING)
      .rc;
}

std::map<std::string, std::vector<unsigned long long>> get_drovik_client_bytes_info() {
  std::map<std::string, std::vector<unsigned long long>> bytes;
  const MibIo io = make_buffer();
  if (!io) return bytes;
  const auto [rc, reply] = system::judged_call(
      {__func__, SERVICE, "bytes_info", "", system::BUS_SHORT_TIMEOUT}, io, BYTES_WORDING);
  if (rc != NO_ERROR) return bytes;
  const json_t* data = reply.data();
  if (!json_is_array(data)) {
    ORMEL_LOG(ERROR, "data isn't an array. %d: %s", reply.line, reply.reason.c_str());
    return bytes;
  }

  size_t at = 0;
  const json_t* client = nullptr;
  json_array_foreach(data, at, client) {
    const json_t* mac = json_object_get(client, "mac");
    const json_t* rx = json_object_get(client, "rx_bytes");
    const json_t* tx = json_object_get(client, "tx_bytes");
    if (!json_is_object(client)) {
      ORMEL_LOG(ERROR, "val isn't an object. %d: %s", reply.line, reply.reason.c_str());
    } else if (!json_is_string(mac) || !json_is_integer(rx) || !json_is_integer(tx)) {
      ORMEL_LOG(ERROR, "unexpected type. %d: %s", reply.line, reply.reason.c_str());
    } else {
      bytes[json_string_value(mac)] = {to_bytes(rx), to_bytes(tx)};
    }
  }
  return bytes;
}

}  // namespace ormel::drovik
