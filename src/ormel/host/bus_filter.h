// Lets a dry run answer bus calls in the place of the daemons, so that none of them changes
// anything.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include <fenro/mibservice.h>

namespace ormel::system {

// The reply to a call that must not go out; nothing for one that may.
using BusFilter = std::function<std::optional<std::string>(
    std::string_view service, std::string_view method, std::string_view request)>;

// From now on, for the rest of the process.
void filter_calls(BusFilter filter);

// mib_call, or the filter's answer.
[[nodiscard]] int send_call(const char* service, const char* method, mib_io* io, int timeout,
                            int flag);

}  // namespace ormel::system
