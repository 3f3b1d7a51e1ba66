// What happened, over the web: the appliance's event log as far as it is about this service, the
// connection logs of servers and client profiles, their clean-up, and an archive for those who look
// for a fault.
#pragma once

#include <string>

#include "ormel/base/json.h"

namespace ormel::cgi {

// A row of the event log as an object of its columns, added to the JsonValue behind `out`. Always
// returns 0, so that SQLite continues.
int sqlite_query_callback(void* out, int columns, char** values, char** names);

}  // namespace ormel::cgi

namespace ormel::cgi::log {

// Date and time in the formats that the appliance is set to, without seconds; empty for a time that
// has no date.
[[nodiscard]] std::string timestamp(long seconds);

}  // namespace ormel::cgi::log
