// A line of the list of live connections, /var/log/ormel_online_users:
//
//   INTERFACE SOURCE NUMBER LOCAL REMOTE TYPE TIME USER [DEVICE TEXT]
//
// NUMBER is the pid of the session's PPP daemon, or the client's source port for OpenVPN, TYPE the
// bit of the server, TIME seconds since the epoch, USER base64; the device text runs to the end of
// the line.
#pragma once

#include <cstdint>
#include <ctime>
#include <string_view>

#include "base/lines.h"

namespace fenro {

inline constexpr const char* ONLINE_USERS = "/var/log/ormel_online_users";

// The parts of a line, as they are in it.
struct OnlineLine {
  std::string_view interface {};
  std::string_view source{};
  std::uint32_t number = 0;
  std::string_view local{};
  std::string_view remote{};
  std::uint32_t type = 0;
  std::time_t since = 0;
  std::string_view user{};
  std::string_view device{};
};

// Returns false for a line with fewer parts, with another text in the place of a number, or with a
// NUL, which a crash of the host leaves at the end of a file.
[[nodiscard]] inline bool parse_online_line(std::string_view line, OnlineLine& out) {
  if (line.find('\0') != std::string_view::npos) return false;
  out.interface = take_word(line);
  out.source = take_word(line);
  if (!parse_number(take_word(line), out.number)) return false;
  out.local = take_word(line);
  out.remote = take_word(line);
  if (!parse_number(take_word(line), out.type) || !parse_number(take_word(line), out.since))
    return false;
  out.user = take_word(line);
  skip_blanks(line);
  out.device = line;
  return !out.user.empty();
}

}  // namespace fenro
