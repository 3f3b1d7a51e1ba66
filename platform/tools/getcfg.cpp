// getcfg SECTION KEY [-f FILE] [-d DEFAULT]: prints one value of an INI file. A missing key
// prints the default; the exit status is 1 when that is empty or not given. An empty SECTION
// means the lines before the first section.
#include <cstdio>

#include "libfenro/ini_file.h"
#include "libfenro/paths.h"
#include "tools/arguments.h"

namespace {
constexpr int MISSING = 1;
constexpr int USAGE = 2;
}  // namespace

int main(int argc, char** argv) {
  const auto arguments = fenro::parse_arguments({argv + 1, argv + argc}, 2, {"-f", "-d"});
  if (!arguments) {
    std::fputs("usage: getcfg SECTION KEY [-f FILE] [-d DEFAULT]\n", stderr);
    return USAGE;
  }
  const std::string file = arguments->option("-f", fenro::paths::SYSTEM_CONF);
  const std::string fallback = arguments->option("-d", "");
  const auto value =
      fenro::ini::read_value(file.c_str(), arguments->operands[0], arguments->operands[1]);
  if (std::puts(value.value_or(fallback).c_str()) < 0 || std::fflush(stdout) != 0) return USAGE;
  return value || !fallback.empty() ? 0 : MISSING;
}
