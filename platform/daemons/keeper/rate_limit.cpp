#include "daemons/keeper/rate_limit.h"

namespace fenro::keeper {

bool RateLimit::admit(const std::string& key, Time now) {
  Window& window = windows_.try_emplace(key, Window{now}).first->second;
  if (window.sent >= MOST) {
    ++window.held_back;
    return false;
  }
  ++window.sent;
  return true;
}

std::vector<RateLimit::Summary> RateLimit::ended(Time now) {
  std::vector<Summary> all;
  std::erase_if(windows_, [&](const auto& entry) {
    if (now - entry.second.begin < WINDOW) return false;
    if (entry.second.held_back > 0) all.push_back({entry.first, entry.second.held_back});
    return true;
  });
  return all;
}

}  // namespace fenro::keeper
