#include "ormel/host/bus.h"

#include "ormel/base/error.h"
#include "ormel/base/log.h"
#include "ormel/base/text.h"

namespace ormel::system {

// A line in the name of the function that made the call.
#define LOG_FOR(function, ...) log_line(ORMELLOG_ERROR, __FILE_NAME__, __LINE__, function, __VA_ARGS__)

namespace {

const std::string REPLACEMENT_CHARACTER = "\xef\xbf\xbd";  // U+FFFD in UTF-8

std::string indented(const json_t* document) {
  const CString dump{json_dumps(document, JSON_INDENT(4))};
  return dump ? dump.get() : "";
}

Json parse(const MibIo& io, json_error_t& error) {
  size_t length = 0;
  const char* text = mib_io_read(io.get(), &length);
  return Json{text ? json_loadb(text, length, 0, &error) : nullptr};
}

}  // namespace

int json_write_io(const char* bytes, size_t length, void* io) {
  return mib_io_write(static_cast<mib_io*>(io), bytes, length) - static_cast<int>(length);
}

Json easy_mib_call(const char* service, const char* method, const char* request) {
  const char* shown = request ? request : "";
  const MibIo io{mib_io_create()};
  if (!io) {
    ORMEL_LOG(ERROR, "%s: mib_io_create failed\n", __func__);
    return nullptr;
  }
  if (request) std::ignore = mib_io_write(io.get(), request, std::char_traits<char>::length(request));
  if (mib_call(service, method, io.get(), BUS_SHORT_TIMEOUT, BUS_FLAG) != MIB_SUCCESS) {
    ORMEL_LOG(ERROR, "%s: mib_call %s.%s %s failed\n", __func__, service, method, shown);
    return nullptr;
  }

  json_error_t error{};
  Json root = parse(io, error);
  if (!json_is_object(root.get())) {
    ORMEL_LOG(ERROR, "%s: root isn't an object.\n", __func__);
    return nullptr;
  }
  const json_t* code = json_object_get(root.get(), "error");
  if (!json_is_integer(code)) {
    ORMEL_LOG(ERROR, "%s: val isn't an integer.\n", __func__);
    return nullptr;
  }
  if (json_integer_value(code) != 0) {
    ORMEL_LOG(ERROR, "%s: %s.%s %s failed\n", __func__, service, method, shown);
    return nullptr;
  }
  return root;
}

BusReply bus_call(const char* function, const char* service, const char* method, const json_t* request, int timeout) {
  const MibIo io{mib_io_create()};
  if (!io) return {ERR_MIB_IO_FAILED, nullptr};
  if (request && json_dump_callback(request, json_write_io, io.get(), JSON_COMPACT) != 0) {
    return {ERR_MIB_IO_FAILED, nullptr};
  }
  if (const int rc = mib_call(service, method, io.get(), timeout, BUS_FLAG); rc != MIB_SUCCESS) {
    LOG_FOR(function, "%s: mib_call failed ret:%d\n", function, rc);
    return {ERR_MIB_CALL_FAILED, nullptr};
  }

  json_error_t error{};
  Json root = parse(io, error);
  if (!json_is_object(root.get())) {
    LOG_FOR(function, "%s: root isn't an object. %d: %s\n", function, error.line, error.text);
    return {ERR_WRONG_JSON_FORMAT, nullptr};
  }
  const json_t* code = json_object_get(root.get(), "error");
  if (!json_is_integer(code)) {
    LOG_FOR(function, "%s: val isn't an integer. %d: %s\n", function, error.line, error.text);
    return {ERR_WRONG_JSON_FORMAT, nullptr};
  }
  if (json_integer_value(code) != 0) {
    LOG_FOR(function, "%s: %s.%s failed %s\n", function, service, method, indented(root.get()).c_str());
    return {ERR_MIB_API_RET_ERROR, std::move(root)};
  }
  return {NO_ERROR, std::move(root)};
}

PlainReply plain_call(const char* service, const char* method, const json_t* request) {
  PlainReply reply;
  const MibIo io{mib_io_create()};
  const bool written = io && (!request || json_dump_callback(request, json_write_io, io.get(), JSON_COMPACT) == 0);
  reply.status = written ? mib_call(service, method, io.get(), BUS_TIMEOUT, BUS_FLAG) : NO_IO;
  if (reply.status != MIB_SUCCESS) return reply;

  size_t length = 0;
  if (const char* text = mib_io_read(io.get(), &length)) reply.text.assign(text, length);
  json_error_t error{};
  reply.document = Json{json_loadb(reply.text.data(), reply.text.size(), 0, &error)};
  reply.reason = error.text;
  reply.line = error.line;
  return reply;
}

std::string valid_utf8(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  for (size_t at = 0; at < text.size();) {
    const auto length = static_cast<size_t>(mb_size(text[at]));
    const bool whole = length == 1 || (at + length <= text.size() && Json{json_stringn(&text[at], length)});
    out += whole ? text.substr(at, length) : REPLACEMENT_CHARACTER;
    at += whole ? length : 1;
  }
  return out;
}

}  // namespace ormel::system
