// How long the two links of a member have been down: that of its agent to the cloud, and its tunnels.
#pragma once

#include <string>

namespace fenro::pelmar {

// Each report is a sample; a link has been down since the first of those that say so without a break. The time is that
// since the host was started, and so is what is kept of it.
class LinkWatch {
 public:
  static constexpr long PATIENCE = 180;  // seconds

  // `file` is where the times outlive the daemon.
  explicit LinkWatch(std::string file);

  struct Timeouts {
    bool cloud = false;
    bool tunnels = false;
  };
  // Whether a link has been down for too long, at `now`, in seconds since the host was started.
  [[nodiscard]] Timeouts report(bool cloud_up, bool tunnels_up, long now);

 private:
  void save() const;

  std::string file_;
  long cloud_down_ = 0;  // since when; 0 for a link that is up
  long tunnels_down_ = 0;
};

}  // namespace fenro::pelmar
