// The part of a log that a command is asked for, by --since, --limit and --user.
#pragma once

#include <string>

#include "ormelctl/command.h"

namespace ormelctl {

struct LogQuery {
  long since = 0;  // seconds since 1970, 0 for all
  long limit = 50;
  std::string user;

  static constexpr long MOST = 10000;  // rows
};

// Returns whether the options are well-formed; else `problem` is a usage error.
[[nodiscard]] bool read_query(const Arguments& arguments, LogQuery& query, Result& problem);

}  // namespace ormelctl
