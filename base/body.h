// The body of a web request that is of no use.
#pragma once

#include <array>
#include <chrono>
#include <cstring>
#include <poll.h>
#include <unistd.h>

namespace fenro {

// Drains a body: a web server that is still writing it would take the end of the program for a
// failure, and not pass the answer on. Gives up after two seconds, as the answer waits meanwhile,
// and at twice what the web server lets through. The body may hold a password, so nothing of it is
// left in memory.
inline void discard_body(int fd) {
  using Clock = std::chrono::steady_clock;
  constexpr std::chrono::seconds TIME{2};
  constexpr std::size_t LIMIT = std::size_t{4} << 20U;
  constexpr std::size_t PIECE = std::size_t{16} << 10U;
  const auto end = Clock::now() + TIME;
  std::array<char, PIECE> piece;
  for (std::size_t done = 0; done < LIMIT;) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now());
    pollfd ready{fd, POLLIN, 0};
    if (left.count() <= 0 || poll(&ready, 1, static_cast<int>(left.count())) <= 0) break;
    const ssize_t count = read(fd, piece.data(), piece.size());
    if (count <= 0) break;
    done += static_cast<std::size_t>(count);
  }
  explicit_bzero(piece.data(), piece.size());
}

}  // namespace fenro
