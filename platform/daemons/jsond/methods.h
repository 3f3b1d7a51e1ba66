// What vpncaas answers. A reply is {"error":0,"data":...}; with an error that is not 0, data says
// why in a text.
#pragma once

#include <span>
#include <string>
#include <string_view>

#include "daemons/jsond/documents.h"

namespace fenro::jsond {

struct Method {
  std::string_view name;
  // The outcome of a request; `data` may be filled.
  std::string (*run)(const Documents& documents, const json_t* request, Json& data);
};

[[nodiscard]] std::span<const Method> methods();

// The reply to a request as it came over the bus, whatever it holds.
[[nodiscard]] std::string answer(const Documents& documents, const Method& method,
                                 std::string_view body);

}  // namespace fenro::jsond
