// setcfg SECTION KEY VALUE [-f FILE]: sets or creates one value of an INI file, in place and
// atomically, and keeps every other line unchanged. An empty SECTION means the lines before the
// first section.
#include <cstdio>
#include <tuple>

#include "libfenro/ini_file.h"
#include "libfenro/paths.h"
#include "tools/arguments.h"

namespace {
constexpr int FAILED = 1;
constexpr int USAGE = 2;
}  // namespace

int main(int argc, char** argv) {
  const auto arguments = fenro::parse_arguments({argv + 1, argv + argc}, 3, {"-f"});
  if (!arguments) {
    std::fputs("usage: setcfg SECTION KEY VALUE [-f FILE]\n", stderr);
    return USAGE;
  }
  const std::string file = arguments->option("-f", fenro::paths::SYSTEM_CONF);
  const auto& [section, key, value] =
      std::tie(arguments->operands[0], arguments->operands[1], arguments->operands[2]);
  if (fenro::ini::write_value(file, section, key, value)) return 0;
  std::fprintf(stderr, "setcfg: cannot set \"%s\" of [%s] in %s\n", key.c_str(), section.c_str(),
               file.c_str());
  return FAILED;
}
