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

struct Reply {
  int rc = NO_ERROR;
  Json document;         // an object whose "error" is 0, when `rc` is 0
  json_error_t place{};  // the parser's, for log lines
};

// One call with the request in `io`. `article` stands in the log lines, which each method words in its own way.
Reply call(const char* method, const char* article, const MibIo& io) {
  Reply reply;
  if (const int rc = mib_call(SERVICE, method, io.get(), system::BUS_SHORT_TIMEOUT, system::BUS_FLAG)) {
    ORMEL_LOG(ERROR, "mib_call failed ret:%d", rc);
    reply.rc = ERR_MIB_CALL_FAILED;
    return reply;
  }

  size_t length = 0;
  const char* text = mib_io_read(io.get(), &length);
  reply.document.reset(text ? json_loadb(text, length, 0, &reply.place) : nullptr);
  const json_t* error = json_object_get(reply.document.get(), "error");
  if (!json_is_object(reply.document.get())) {
    ORMEL_LOG(ERROR, "root isn't %s object. %d: %s", article, reply.place.line, reply.place.text);
    reply.rc = ERR_WRONG_JSON_FORMAT;
  } else if (!json_is_integer(error)) {
    ORMEL_LOG(ERROR, "val isn't %s integer. %d: %s", article, reply.place.line, reply.place.text);
    reply.rc = ERR_WRONG_JSON_FORMAT;
  } else if (json_integer_value(error) != 0) {
    const CString dump{json_dumps(reply.document.get(), JSON_INDENT(4))};
    ORMEL_LOG(ERROR, "%s.%s failed %s", SERVICE, method, dump ? dump.get() : "");
    reply.rc = ERR_MIB_API_RET_ERROR;
  }
  return reply;
}

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
  return call("disconnect", "a", io).rc;
}

std::map<std::string, std::vector<unsigned long long>> get_drovik_client_bytes_info() {
  std::map<std::string, std::vector<unsigned long long>> bytes;
  const MibIo io = make_buffer();
  if (!io) return bytes;
  const Reply reply = call("bytes_info", "an", io);
  if (reply.rc != NO_ERROR) return bytes;
  const json_t* data = json_object_get(reply.document.get(), "data");
  if (!json_is_array(data)) {
    ORMEL_LOG(ERROR, "data isn't an array. %d: %s", reply.place.line, reply.place.text);
    return bytes;
  }

  size_t at = 0;
  const json_t* client = nullptr;
  json_array_foreach(data, at, client) {
    const json_t* mac = json_object_get(client, "mac");
    const json_t* rx = json_object_get(client, "rx_bytes");
    const json_t* tx = json_object_get(client, "tx_bytes");
    if (!json_is_object(client)) {
      ORMEL_LOG(ERROR, "val isn't an object. %d: %s", reply.place.line, reply.place.text);
    } else if (!json_is_string(mac) || !json_is_integer(rx) || !json_is_integer(tx)) {
      ORMEL_LOG(ERROR, "unexpected type. %d: %s", reply.place.line, reply.place.text);
    } else {
      bytes[json_string_value(mac)] = {to_bytes(rx), to_bytes(tx)};
    }
  }
  return bytes;
}

}  // namespace ormel::drovik
