#include "ormel/host/bus.h"

#include <string_view>
#include <tuple>

#include "base/lines.h"
#include "ormel/base/error.h"
#include "ormel/base/log.h"
#include "ormel/host/bus_filter.h"

namespace ormel::system {

namespace {

constexpr Wording EASY_WORDING{"{function}: mib_call {service}.{method} {request} failed\n",
                               "{function}: root isn't an object.\n",
                               "{function}: val isn't an integer.\n",
                               "{function}: {service}.{method} {request} failed\n"};

std::string indented(const json_t* document) {
  const CString dump{json_dumps(document, JSON_INDENT(4))};
  return dump ? dump.get() : "";
}

// The value of one name in a wording.
std::string value_of(std::string_view name, const BusCall& call, const PlainReply& reply) {
  if (name == "function") return call.function;
  if (name == "service") return call.service;
  if (name == "method") return call.method;
  if (name == "request") return call.request;
  if (name == "status") return std::to_string(reply.status);
  if (name == "line") return std::to_string(reply.line);
  return name == "reason" ? reply.reason : indented(reply.document.get());
}

void log_failure(std::string_view wording, const BusCall& call, const PlainReply& reply) {
  if (wording.empty()) return;
  std::string text;
  while (!wording.empty()) {
    text += fenro::take_until(wording, '{');
    if (!wording.empty()) text += value_of(fenro::take_until(wording, '}'), call, reply);
  }
  log_line(ORMELLOG_ERROR, __FILE_NAME__, __LINE__, call.function, "%s", text.c_str());
}

int judge(const BusCall& call, const PlainReply& reply, const Wording& wording) {
  const json_t* const code = json_object_get(reply.document.get(), "error");
  const struct {
    bool failed;
    const char* words;
    int rc;
  } rows[] = {
      {reply.status != MIB_SUCCESS, wording.no_reply, ERR_MIB_CALL_FAILED},
      {!json_is_object(reply.document.get()), wording.no_object, ERR_WRONG_JSON_FORMAT},
      {!json_is_integer(code), wording.no_code, ERR_WRONG_JSON_FORMAT},
      {json_integer_value(code) != 0, wording.refused, ERR_MIB_API_RET_ERROR},
  };
  for (const auto& row : rows) {
    if (!row.failed) continue;
    log_failure(row.words, call, reply);
    return row.rc;
  }
  return NO_ERROR;
}

// A buffer with a request; null when it could not be made or filled.
MibIo holding(const json_t* request) {
  MibIo io{mib_io_create()};
  if (io && request && json_dump_callback(request, json_write_io, io.get(), JSON_COMPACT) != 0)
    io.reset();
  return io;
}

}  // namespace

int json_write_io(const char* bytes, size_t length, void* io) {
  return mib_io_write(static_cast<mib_io*>(io), bytes, length) - static_cast<int>(length);
}

Json easy_mib_call(const char* service, const char* method, const char* request) {
  const MibIo io{mib_io_create()};
  if (!io) {
    ORMEL_LOG(ERROR, "%s: mib_io_create failed\n", __func__);
    return nullptr;
  }
  if (request)
    std::ignore = mib_io_write(io.get(), request, std::char_traits<char>::length(request));
  BusReply answer = judged_call(
      {__func__, service, method, request ? request : "", BUS_SHORT_TIMEOUT}, io, EASY_WORDING);
  return answer.rc == NO_ERROR ? std::move(answer.reply.document) : nullptr;
}

BusReply judged_call(const BusCall& call, const MibIo& io, const Wording& wording) {
  BusReply answer{NO_ERROR, plain_call(call, io)};
  answer.rc = judge(call, answer.reply, wording);
  return answer;
}

BusReply bus_call(const BusCall& call, const json_t* request, const Wording& wording) {
  const MibIo io = holding(request);
  return io ? judged_call(call, io, wording) : BusReply{ERR_MIB_IO_FAILED, {NO_IO}};
}

PlainReply plain_call(const BusCall& call, const MibIo& io) {
  PlainReply reply{send_call(call.service, call.method, io.get(), call.timeout, BUS_FLAG)};
  if (reply.status != MIB_SUCCESS) return reply;
  size_t length = 0;
  if (const char* text = mib_io_read(io.get(), &length)) reply.text.assign(text, length);
  json_error_t error{};
  reply.document = Json{json_loadb(reply.text.data(), reply.text.size(), 0, &error)};
  reply.reason = error.text;
  reply.line = error.line;
  return reply;
}

PlainReply plain_call(const char* service, const char* method, const json_t* request, int timeout) {
  const MibIo io = holding(request);
  return io ? plain_call({"", service, method, "", timeout}, io) : PlainReply{NO_IO};
}

bool serves(const char* service, int seconds) {
  constexpr const char* NO_METHOD = "ping";
  const int status = plain_call(service, NO_METHOD, nullptr, seconds).status;
  return status != MIB_NOT_READY && status != MIB_TIMEOUT && status != NO_IO;
}

}  // namespace ormel::system
