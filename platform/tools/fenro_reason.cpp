// Notes why a tunnel or a server does not work, for the scripts and daemons that know it.
//
//   fenro-reason SECTION CODE [DETAIL]   CODE is one of the table in base/reason.h
//   fenro-reason SECTION --start         a start has begun: what was noted no longer counts
//   fenro-reason SECTION --clear         the tunnel is up, or was stopped
//   fenro-reason SECTION --final         whether another attempt is known to be useless: 0 if so
//
// SECTION is one of vpn.conf. The code's number becomes "Last Error" of a client profile, 0 with
// --clear. Nothing is noted for a profile that is gone. The exit status is 0 when all was noted.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <unistd.h>

#include "base/file.h"
#include "base/reason.h"
#include "libfenro/ini_file.h"

namespace {

using ormel::NotedReason;

constexpr int USAGE = 2;
constexpr const char* VPN_CONF = "/etc/config/vpn.conf";
constexpr const char* LAST_ERROR = "Last Error";
constexpr const char* START = "--start";
constexpr const char* CLEAR = "--clear";
constexpr const char* FINAL = "--final";

std::string file_of(const std::string& section) {
  return std::string(ormel::REASONS_FOLDER) + '/' + section;
}

bool is_profile(const std::string& section) {
  return section.find("_CLIENT") != std::string::npos;
}

bool is_gone(const std::string& section) {
  return is_profile(section) &&
         fenro::ini::read_value(VPN_CONF, section, "Index").value_or("").empty();
}

// A key that has its value is left alone: each write costs a flush.
bool set_last_error(const std::string& section, int error) {
  const std::string text = std::to_string(error);
  if (!is_profile(section) ||
      fenro::ini::read_value(VPN_CONF, section, LAST_ERROR).value_or("0") == text)
    return true;
  return fenro::ini::write_value(VPN_CONF, section, LAST_ERROR, text);
}

bool clear(const std::string& section) {
  const bool forgotten = unlink(file_of(section).c_str()) == 0 || errno == ENOENT;
  return (is_gone(section) || set_last_error(section, 0)) && forgotten;
}

bool store(const std::string& section, const NotedReason& reason) {
  return fenro::make_private_folder(ormel::REASONS_FOLDER) &&
         fenro::replace_file(file_of(section), ormel::reason_line(reason));
}

bool note(const std::string& section, const ormel::ReasonFacts& facts, const char* detail) {
  if (is_gone(section)) return clear(section);
  const std::time_t now = std::time(nullptr);
  NotedReason reason{&facts, now, now, 1, detail};
  if (const auto before = ormel::read_reason(section); before && before->facts == &facts) {
    reason.since = before->since;
    reason.count = before->count + 1;
  }
  const bool stored = store(section, reason);
  return set_last_error(section, facts.error) && stored;
}

bool start(const std::string& section) {
  const std::time_t now = std::time(nullptr);
  return is_gone(section) ? clear(section) : store(section, {nullptr, now, now, 0, ""});
}

bool is_final(const std::string& section) {
  const auto noted = ormel::read_reason(section);
  return noted && noted->facts && noted->facts->final;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string section = argc > 1 ? argv[1] : "";
  const std::string code = argc > 2 ? argv[2] : "";
  const ormel::ReasonFacts* const facts = ormel::find_reason(code);
  const bool alone = argc == 3;
  if (ormel::is_tunnel_section(section) && (alone || (argc == 4 && facts))) {
    if (code == CLEAR) return clear(section) ? EXIT_SUCCESS : EXIT_FAILURE;
    if (code == FINAL) return is_final(section) ? EXIT_SUCCESS : EXIT_FAILURE;
    if (code == START) return start(section) ? EXIT_SUCCESS : EXIT_FAILURE;
    if (facts) return note(section, *facts, alone ? "" : argv[3]) ? EXIT_SUCCESS : EXIT_FAILURE;
  }
  std::fputs("usage: fenro-reason SECTION CODE [DETAIL] | --start | --clear | --final\n", stderr);
  return USAGE;
}
