// Lines for the journal, and for the one who starts the daemon until it goes to the background.
#pragma once

#include <syslog.h>

namespace fenro::drovik {

// `name` of the daemon before each line; with `debug` the LOG_DEBUG ones are written too.
void open_log(const char* name, bool debug);

[[gnu::format(printf, 2, 3)]] void log_line(int priority, const char* format, ...);

}  // namespace fenro::drovik
