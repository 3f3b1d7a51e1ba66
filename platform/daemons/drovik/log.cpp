#include "daemons/drovik/log.h"

#include <cstdarg>
#include <cstdio>

namespace fenro::drovik {
namespace {

bool log_debug = false;

}  // namespace

void open_log(const char* name, bool debug) {
  log_debug = debug;
  openlog(name, LOG_PID, LOG_DAEMON);
}

void log_line(int priority, const char* format, ...) {
  if (priority == LOG_DEBUG && !log_debug) return;
  char line[1024];
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(line, sizeof line, format, arguments);
  va_end(arguments);
  syslog(priority, "%s", line);
  std::fprintf(stderr, "%s\n", line);  // nowhere once the daemon is in the background
}

}  // namespace fenro::drovik
