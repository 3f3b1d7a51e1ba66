// What NetworkService answers: a table of methods, each from a request's object to an answer.
// A reply is one compact JSON object, {"error":0,"data":...}; with an error that is not 0, data says why in a text.
#pragma once

#include <span>
#include <string>
#include <string_view>

#include "daemons/networkd/external_devices.h"
#include "daemons/networkd/json.h"
#include "daemons/networkd/rates.h"

namespace fenro::networkd {

struct State {
  ExternalDevices devices;
  Rates rates;
};

enum : int {
  ERROR_NONE = 0,
  ERROR_INTERSECT = 1,  // callers know this number: the network collides with a local one
  ERROR_NOT_FOUND = 2,
  ERROR_REQUEST = -1,
  ERROR_PLATFORM = -2,  // the kernel or the disk refused
};

struct Answer {
  int error = ERROR_NONE;
  Json data;
};

struct Method {
  std::string_view name;
  Answer (*run)(State& state, const json_t* request);
};

[[nodiscard]] std::span<const Method> methods();

// The reply to a request as it came over the bus, whatever it holds.
[[nodiscard]] std::string answer(State& state, const Method& method, std::string_view body);

// A reading for the rates, to be taken about once a second.
void sample_rates(State& state);

}  // namespace fenro::networkd
