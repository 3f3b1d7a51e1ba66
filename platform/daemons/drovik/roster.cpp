#include "daemons/drovik/roster.h"

#include <algorithm>

namespace fenro::drovik {

Roster::Entry Roster::admit(SessionId session, const std::string& user,
                            const std::string& identifier) {
  if (const auto old = guests_.find(identifier); old != guests_.end()) {
    Guest& guest = old->second;
    if (guest.user != user) return {Reason::Occupied};
    const SessionId replaced = guest.session;
    guest.session = holders_[guest.slot] = session;
    return {Reason::None, first_ + static_cast<Ipv4>(guest.slot), replaced};
  }
  const auto free = std::ranges::find(holders_, SessionId{0});
  if (free == holders_.end() || guests_.size() >= maximum_) return {Reason::Full};
  const auto slot = static_cast<std::size_t>(free - holders_.begin());
  holders_[slot] = session;
  guests_.emplace(identifier, Guest{session, user, slot});
  return {Reason::None, first_ + static_cast<Ipv4>(slot)};
}

void Roster::leave(SessionId session) {
  const auto guest = std::ranges::find_if(
      guests_, [&](const auto& each) { return each.second.session == session; });
  if (guest == guests_.end()) return;  // replaced before
  holders_[guest->second.slot] = 0;
  guests_.erase(guest);
}

SessionId Roster::named(const std::string& identifier) const {
  const auto guest = guests_.find(identifier);
  return guest == guests_.end() ? 0 : guest->second.session;
}

}  // namespace fenro::drovik
