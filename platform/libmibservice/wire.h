// Shared by both halves of the bus: addresses, the numbers of a frame, and the check of the other
// end. <fenro/mibservice.h> documents the form of a frame.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <sys/un.h>

namespace fenro::bus {

constexpr std::size_t MAX_FRAME = std::size_t{64} << 20;  // limit of a frame's total
constexpr std::size_t NUMBER = 4;                         // bytes of one number
constexpr std::size_t HEAD = 2 * NUMBER;                  // total, and method length or status

struct Address {
  sockaddr_un sun{};
  socklen_t length = 0;  // 0: the service cannot be addressed
};

// A service's address: "@text" is the abstract socket of that text, any other name is an abstract
// socket under our prefix.
[[nodiscard]] Address address_of(std::string_view service);

[[nodiscard]] std::uint32_t get_number(const char* bytes);
void put_number(std::string& out, std::size_t number);

[[nodiscard]] std::string request_frame(std::string_view method, std::string_view body);
[[nodiscard]] std::string reply_frame(int status, std::string_view body);

// Returns whether the kernel identifies the other end as root or our own user.
[[nodiscard]] bool peer_is_trusted(int socket);

}  // namespace fenro::bus
