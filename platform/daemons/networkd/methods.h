// What NetworkService answers: a table of methods, each from a request's object to an answer.
// A reply is one compact JSON object, {"error":0,"data":...}; with an error that is not 0, data
// says why in a text.
#pragma once

#include <span>
#include <string>
#include <string_view>

#include "common/json.h"
#include "daemons/networkd/default_gateway.h"
#include "daemons/networkd/external_devices.h"
#include "daemons/networkd/internet_check.h"
#include "daemons/networkd/rates.h"

namespace fenro::networkd {

struct State {
  ExternalDevices devices;
  Rates rates;
  DefaultGateway gateway{};
  InternetCheck internet{};
};

enum : int {
  ERROR_NONE = 0,
  ERROR_INTERSECT = 1,  // callers know this number: the network collides with a local one
  ERROR_DUPLICATE = 1,  // and this one: the address is one of ours
  ERROR_NOT_FOUND = 2,
  ERROR_REQUEST = -1,
  ERROR_PLATFORM = -2,  // the kernel or the disk refused
  ERROR_WORKING = -2,   // callers know this number too: the check is still at work
};

struct Answer {
  int error = ERROR_NONE;
  Json data;
};

[[nodiscard]] Answer succeed(Json data);
[[nodiscard]] Answer fail(int error, std::string_view text);

struct Method {
  std::string_view name;
  Answer (*run)(State& state, const json_t* request);
};

[[nodiscard]] std::span<const Method> methods();

// The reply to a request as it came over the bus, whatever it holds.
[[nodiscard]] std::string answer(State& state, const Method& method, std::string_view body);

// What has to be done about once a second: a reading for the rates, a look at the tunnels of the
// gateway policy.
void look_around(State& state);

}  // namespace fenro::networkd
