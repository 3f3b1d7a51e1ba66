#include "daemons/networkd/guard.h"

#include <charconv>
#include <fstream>
#include <iterator>
#include <memory>
#include <sstream>
#include <string>
#include <unistd.h>
#include <vector>

#include <fenro/mibservice.h>

#include "base/argv.h"
#include "base/bus_handle.h"

namespace fenro::networkd {
namespace {

constexpr const char* GUARD_FILE = "/etc/config/ormel/guard.conf";
constexpr const char* PAUSE_FILE = "/run/fenro/guard.paused";
constexpr const char* SCRIPT = "/etc/init.d/vpn_guard.sh";
constexpr const char* MODES[] = {"off", "on", "strict"};  // by their number

}  // namespace

Guard read_guard(const char* file, const char* pause) {
  if (access(file, F_OK) != 0 || access(pause, F_OK) == 0) return Guard::OFF;
  std::ifstream in{file};
  Guard guard = Guard::ON;
  for (std::string key, equals, word; in >> key;) {
    if (key != "mode" || !(in >> equals >> word)) continue;
    for (int i = 0; i < static_cast<int>(std::size(MODES)); ++i) {
      if (word == MODES[i]) guard = static_cast<Guard>(i);
    }
  }
  return guard;
}

Guard current_guard() {
  return read_guard(GUARD_FILE, PAUSE_FILE);
}

bool guard_is_paused() {
  return access(PAUSE_FILE, F_OK) == 0;
}

bool guard_filter_is_set() {
  std::vector<std::string> words{"/usr/sbin/nft", "list", "counters",
                                 "table",         "inet", "fenro_guard"};
  return mib_io_execv(nullptr, nullptr, nullptr, argv_of(words).data()) == 0;
}

Json describe_guard() {
  Json all{json_pack("{s:s, s:[]}", "mode", MODES[static_cast<int>(current_guard())], "lan")};
  if (current_guard() == Guard::OFF) return all;
  std::vector<std::string> words{SCRIPT, "report"};
  const MibIo out{mib_io_create()};
  if (!out || mib_io_execv(nullptr, out.get(), nullptr, argv_of(words).data()) != 0) return all;
  size_t length = 0;
  const char* const bytes = mib_io_read(out.get(), &length);
  std::istringstream lines{std::string(bytes, length)};
  Json stopped{json_object()};
  for (std::string key, value; lines >> key >> value;) {
    json_int_t count = 0;
    if (key == "lan") {
      json_array_append_new(json_object_get(all.get(), "lan"), json_text(value).release());
    } else if (std::from_chars(value.data(), value.data() + value.size(), count).ec ==
               std::errc()) {
      json_object_set_new(stopped.get(), key.c_str(), json_integer(count));
    }
  }
  json_object_set_new(all.get(), "stopped", stopped.release());
  return all;
}

}  // namespace fenro::networkd
