// The management interface of an OpenVPN daemon: commands and answers as lines. A daemon talks to
// one client at a time; another one waits until that has gone.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "base/handle.h"

namespace fenro::openvpn {

// That of the server. Its port can be used by root alone where the entrance is set up.
constexpr std::uint16_t SERVER_PORT = 7505;

class Management {
 public:
  // Connects to a socket of the file system, or to a port of the loopback. A daemon that is not
  // ours or root's is not talked to: everyone may open a socket of that name.
  [[nodiscard]] static Management at_socket(const std::string& path);
  [[nodiscard]] static Management at_port(std::uint16_t port);
  // The other side: the next client of a listening socket, to be answered as a daemon would. A
  // client that takes no answer is not waited for.
  [[nodiscard]] static Management accepted(int listener);

  // Not connected.
  Management() = default;
  explicit operator bool() const { return fd_.operator bool(); }

  [[nodiscard]] bool say(std::string_view command);

  // The next line without its end; nothing when the daemon has closed, or has been silent for
  // `seconds` (0: wait for ever).
  [[nodiscard]] std::optional<std::string> hear(int seconds = 0);

  // The parts of hear(), for a caller that polls several descriptors: the next line that has come
  // whole, and one read of what waits.
  [[nodiscard]] int fd() const { return fd_.get(); }
  [[nodiscard]] std::optional<std::string> next();
  void fill();
  // Whether the daemon has closed.
  [[nodiscard]] bool closed() const { return closed_; }

 private:
  explicit Management(Fd fd) : fd_(std::move(fd)) {}

  Fd fd_{};
  std::string heard_{};
  bool closed_ = false;
};

}  // namespace fenro::openvpn
