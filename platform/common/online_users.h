// The list of live connections to the appliance's servers, one line a connection
// (base/online_line.h). Servers' scripts, hooks and daemons write it under one lock, always whole,
// so a reader needs none.
#pragma once

#include <cstdint>
#include <ctime>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "base/online_line.h"

namespace fenro {

struct OnlineUser {
  std::string interface {};  // a word of at least one character, as the addresses are
  std::string source{};      // the client's address outside of the tunnel
  std::uint32_t number = 0;  // pid or source port
  std::string local{};       // our own end of the tunnel
  std::string remote{};      // the client's end
  std::uint32_t type = 0;    // of the server: 1 PPTP, 2 L2TP, 4 OpenVPN, 16 Drovik
  std::time_t since = 0;     // login
  std::string user{};        // as it is, not in base64
  std::string device{};      // any text; of no use but for display
};

class OnlineUsers {
 public:
  using Chosen = std::function<bool(const OnlineUser&)>;

  explicit OnlineUsers(std::string file = ONLINE_USERS,
                       std::string lock = "/run/fenro/online_users.lock")
      : file_(std::move(file)), lock_(std::move(lock)) {}

  // Returns who is online now, in the order of logins; empty without a list.
  [[nodiscard]] std::vector<OnlineUser> list() const;

  // Adds a line. False for a value that is not one word, for an empty user, or when the list cannot
  // be written.
  [[nodiscard]] bool add(const OnlineUser& session) const;

  // Removes the chosen lines and returns their sessions in `removed`. Malformed lines are kept.
  [[nodiscard]] bool remove(const Chosen& chosen, std::vector<OnlineUser>& removed) const;

 private:
  std::string file_;
  std::string lock_;
};

}  // namespace fenro
