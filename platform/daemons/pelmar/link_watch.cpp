#include "daemons/pelmar/link_watch.h"

#include <algorithm>
#include <cstdlib>
#include <tuple>

#include "base/file.h"

namespace fenro::pelmar {

namespace {

bool sample(long& down_since, bool up, long now) {
  const long before = down_since;
  down_since = up ? 0 : before == 0 ? std::max(now, 1L) : before;
  return down_since != before;
}

}  // namespace

LinkWatch::LinkWatch(std::string file) : file_(std::move(file)) {
  std::string kept;
  if (read_file(file_.c_str(), kept) != 0) return;
  char* rest = nullptr;
  cloud_down_ = std::strtol(kept.c_str(), &rest, 10);
  tunnels_down_ = std::strtol(rest, nullptr, 10);
}

LinkWatch::Timeouts LinkWatch::report(bool cloud_up, bool tunnels_up, long now) {
  const bool cloud_changed = sample(cloud_down_, cloud_up, now);
  const bool tunnels_changed = sample(tunnels_down_, tunnels_up, now);
  if (cloud_changed || tunnels_changed) save();
  return {cloud_down_ != 0 && now - cloud_down_ >= PATIENCE,
          tunnels_down_ != 0 && now - tunnels_down_ >= PATIENCE};
}

void LinkWatch::save() const {
  // If the times cannot be stored, they start again with the daemon.
  std::ignore =
      replace_file(file_, std::to_string(cloud_down_) + ' ' + std::to_string(tunnels_down_) + '\n');
}

}  // namespace fenro::pelmar
