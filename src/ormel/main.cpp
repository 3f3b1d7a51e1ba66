// One executable, several personalities: the name under which it is started selects one.
#include <cstdio>
#include <libgen.h>
#include <string_view>

#include "ormel/actions/actions.h"
#include "ormel/actions/server_login.h"
#include "ormel/drivers/openvpn/openvpn.h"
#include "ormel/web/cgi_main.h"

namespace {

struct Personality {
  std::string_view name;
  int (*entry)(int argc, char** argv);
};

constexpr Personality PERSONALITIES[] = {
    {"ormel", ormel::main},
    {"ormel.cgi", ormel::cgi::main},
    {"ormel.sauth", ormel::ovpn::sauth},
    {"ormel.cauth", [](int argc, char** argv) -> int { ormel::ovpn::cauth(argc, argv); }},
    {"", nullptr},
};

}  // namespace

int main(int argc, char** argv) {
  const std::string_view name = argc > 0 ? basename(argv[0]) : "";
  for (const Personality* row = PERSONALITIES; row->entry; ++row) {
    if (row->name == name) return row->entry(argc, argv);
  }
  std::fputs("ormel, oops !\n", stderr);
  return 1;
}
