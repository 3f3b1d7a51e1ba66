// The two forms of a reply, and the parsing of requests into objects.
#pragma once

#include <string>
#include <string_view>

#include "common/json.h"
#include "libmibservice/mibserver.h"

namespace fenro::pelmar {

inline bus::Reply succeed(Json data) {
  return {MIB_SUCCESS, reply_text(0, std::move(data))};
}

inline bus::Reply fail(std::string_view message) {
  const Json reply{
      json_pack("{s:i, s:o}", "error", 1, "error_message", json_text(message).release())};
  return {MIB_SUCCESS, compact(reply.get())};
}

}  // namespace fenro::pelmar
