// Who is online on the server: the addresses of the pool and the identifiers by which clients are
// counted and kicked.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "daemons/drovik/frames.h"

namespace fenro::drovik {

using SessionId = std::uint64_t;  // 0 is none

class Roster {
 public:
  // What became of a login. `refused` is None for one that is admitted; then `replaced` is the
  // older session of the same client, which has left the roster, or 0.
  struct Entry {
    Reason refused = Reason::None;
    Ipv4 address = 0;
    SessionId replaced = 0;
  };

  // The pool, both ends included, and how many may be online.
  Roster(Ipv4 first, Ipv4 last, std::size_t maximum)
      : first_(first), maximum_(maximum), holders_(std::size_t{last} - first + 1) {}

  // A client that comes back before its old session was missed takes that one's place and address,
  // so neither a reboot nor a new network locks it out. Somebody else's identifier is not taken
  // over.
  [[nodiscard]] Entry admit(SessionId session, const std::string& user,
                            const std::string& identifier);
  void leave(SessionId session);

  // 0 without anyone.
  [[nodiscard]] SessionId at(Ipv4 address) const {
    const std::size_t slot = address - first_;  // wraps to a large number below the pool
    return slot < holders_.size() ? holders_[slot] : 0;
  }
  [[nodiscard]] SessionId named(const std::string& identifier) const;

 private:
  struct Guest {
    SessionId session;
    std::string user;
    std::size_t slot;
  };

  Ipv4 first_;
  std::size_t maximum_;
  std::vector<SessionId> holders_;         // by address
  std::map<std::string, Guest> guests_{};  // by identifier
};

}  // namespace fenro::drovik
