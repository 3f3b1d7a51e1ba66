// When a tunnel's daemon last heard from its server: the time of a file for each interface.
// Keep-alives never reach the interface, so only the daemon sees them.
#pragma once

#include <fcntl.h>
#include <string>
#include <sys/stat.h>

#include "base/handle.h"

namespace fenro {

inline constexpr const char* HEARD_FOLDER = "/run/fenro/heard";

[[nodiscard]] inline std::string heard_file(const std::string& interface) {
  return std::string(HEARD_FOLDER) + '/' + interface;
}

// Notes it for now. A failure means that the daemon's word is missing, nothing more.
inline void note_heard(const std::string& interface) {
  mkdir(HEARD_FOLDER, S_IRWXU);
  const Fd file{open(heard_file(interface).c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW,
                     S_IRUSR | S_IWUSR)};
  if (file) futimens(file.get(), nullptr);
}

}  // namespace fenro
