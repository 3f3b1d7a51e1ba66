// The plain profile operations of the web API.
#pragma once

#include <memory>

#include "base/types.h"
#include "ormel/config/record.h"

namespace ormel::cgi::config {

// The type that a number or a name in any case means, NONE_TYPE if neither fits.
[[nodiscard]] TYPE convert_type(const char* value);
// A new record of that type with index 0, null for NONE_TYPE.
[[nodiscard]] std::unique_ptr<ormel::config::BaseConfig> create_config(const char* value);

}  // namespace ormel::cgi::config
