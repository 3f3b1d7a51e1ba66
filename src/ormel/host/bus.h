// Calls to the appliance's daemons over the service bus.
#pragma once

#include <limits>
#include <string>
#include <utility>

#include "base/utf8.h"
#include "ormel/base/handle.h"

namespace ormel::system {

constexpr int BUS_TIMEOUT = 60;       // seconds, unless the caller says otherwise
constexpr int BUS_SHORT_TIMEOUT = 5;  // seconds, of easy_mib_call and the log database
constexpr int BUS_FLAG = -1;

// Callback of json_dump_callback that streams a document into a buffer. 0 on a full write.
int json_write_io(const char* bytes, size_t length, void* io);

// One call whose answer is wanted parsed. `request` is JSON text or null. The answer when it is an
// object with an integer `error` of 0; otherwise null, with the cause in the log.
[[nodiscard]] Json easy_mib_call(const char* service, const char* method, const char* request);

// One call on the bus, as log lines name it.
struct BusCall {
  const char* function;  // the caller
  const char* service;
  const char* method;
  const char* request = "";  // as text, for those whose wording shows it
  int timeout = BUS_TIMEOUT;
};

// A reply as it came.
struct PlainReply {
  int status = 0;        // of mib_call, or NO_IO
  std::string text{};    // as it came
  Json document{};       // null unless the text is JSON
  std::string reason{};  // why it is null,
  int line = 0;          // and where

  // What the reply carries; null when it carries nothing. It stays the reply's.
  [[nodiscard]] json_t* data() const { return json_object_get(document.get(), "data"); }
};

constexpr int NO_IO = -1;  // there was no memory to make a call with

// How a caller words each failure in the log. "{function}", "{service}", "{method}", "{request}",
// "{status}", "{line}",
// "{reason}" and "{reply}" stand for what the call and the reply hold; an empty text logs nothing.
struct Wording {
  const char* no_reply;   // ERR_MIB_CALL_FAILED
  const char* no_object;  // ERR_WRONG_JSON_FORMAT
  const char* no_code;    // the same: the member "error" is not an integer
  const char* refused;    // ERR_MIB_API_RET_ERROR
};

// What most callers say.
constexpr Wording BUS_WORDING{"{function}: mib_call failed ret:{status}\n",
                              "{function}: root isn't an object. {line}: {reason}\n",
                              "{function}: val isn't an integer. {line}: {reason}\n",
                              "{function}: {service}.{method} failed {reply}\n"};

struct BusReply {
  int rc = 0;  // 0, ERR_MIB_IO_FAILED, ERR_MIB_CALL_FAILED, ERR_MIB_API_RET_ERROR or
               // ERR_WRONG_JSON_FORMAT
  PlainReply reply{};
};

// Makes a call whose reply reports a code, and judges the reply. The request is in `io`.
[[nodiscard]] BusReply judged_call(const BusCall& call, const MibIo& io,
                                   const Wording& wording = BUS_WORDING);

// The same with a document as the request, or none.
[[nodiscard]] BusReply bus_call(const BusCall& call, const json_t* request,
                                const Wording& wording = BUS_WORDING);

// Makes a call whose reply the caller judges, whatever it says.
[[nodiscard]] PlainReply plain_call(const char* service, const char* method,
                                    const json_t* request = nullptr, int timeout = BUS_TIMEOUT);
[[nodiscard]] PlainReply plain_call(const BusCall& call, const MibIo& io);

// Whether a daemon serves its name: an answer of any kind shows it, also one to a method that it
// does not have.
[[nodiscard]] bool serves(const char* service, int seconds);

// The service that knows the appliance's networks, and those of its methods that several modules
// call.
constexpr const char* NETWORK_SERVICE = "NetworkService";
constexpr const char* CURRENT_GATEWAY = "api.get_currentGWinfo";
constexpr const char* INTERFACE_COUNTERS = "interfaces_monitor.get_info_interfaces";

// The service that restarts tunnels and notifies of events.
constexpr const char* KEEPER_SERVICE = "KeeperService";

// A number of a reply, integer or real, cut to a range. What is no number counts as 0.
template <typename Integer>
[[nodiscard]] Integer cut_number(const json_t* number,
                                 Integer least = std::numeric_limits<Integer>::min(),
                                 Integer most = std::numeric_limits<Integer>::max()) {
  if (json_is_integer(number)) {
    const json_int_t value = json_integer_value(number);
    if (std::cmp_less(value, least)) return least;
    return std::cmp_greater(value, most) ? most : static_cast<Integer>(value);
  }
  const double value = json_number_value(number);
  if (!(value > static_cast<double>(least))) return least;
  return value >= static_cast<double>(most) ? most : static_cast<Integer>(value);
}

// Keeps a request valid JSON whatever a profile is called.
using fenro::valid_utf8;

}  // namespace ormel::system
