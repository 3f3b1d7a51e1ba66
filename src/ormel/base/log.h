// The diagnostic log: one line per event, to a file or to standard output. Logging never fails its
// caller.
#pragma once

namespace ormel {

// Levels; a larger number is more severe.
enum {
  ORMELLOG_DEBUG = 10,
  ORMELLOG_INFO = 20,
  ORMELLOG_WARN = 30,
  ORMELLOG_ERROR = 40,
  ORMELLOG_CRITICAL = 50,
  ORMELLOG_NOLOG = 100,
};

// Where lines go.
enum {
  ORMELLOG_TYPE_STDOUT = 0,
  ORMELLOG_TYPE_FILE = 1,
};

extern int __cur_level__;       // a line is written if its level is at least this; initially DEBUG
extern int __cur_type__;        // initially a file
extern char __log_file__[256];  // path of that file

namespace system {

// Writes one line: time, process, level, unit, source line and function before the message, a
// newline after it.
[[gnu::format(printf, 5, 6)]] void log_line(int level, const char* unit, int line,
                                            const char* function, const char* format, ...);

// Renames a log of 2 MiB or more to "<path>.1", older ones up to "<path>.5". Failures go to
// standard error.
void log_rotate(const char* path);

}  // namespace system
}  // namespace ormel

// `level` is the word after ORMELLOG_; the format is the message.
#define ORMEL_LOG(level, ...)                                                                 \
  do {                                                                                        \
    if (::ormel::__cur_level__ <= ::ormel::ORMELLOG_##level)                                  \
      ::ormel::system::log_line(::ormel::ORMELLOG_##level, __FILE_NAME__, __LINE__, __func__, \
                                __VA_ARGS__);                                                 \
  } while (false)
