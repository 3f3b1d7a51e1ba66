// Measures how long a member's two links have been down: the agent's link to the cloud, and the
// tunnels.
#pragma once

#include <string>

namespace fenro::pelmar {

// Each report is a sample. A link has been down since the first of an unbroken series of "down"
// samples. All times are seconds since the host booted, in the file too.
class LinkWatch {
 public:
  static constexpr long PATIENCE = 180;  // seconds

  // `file` keeps the times across restarts of the daemon.
  explicit LinkWatch(std::string file);

  struct Timeouts {
    bool cloud = false;
    bool tunnels = false;
  };
  // Returns whether a link has been down for too long at `now`, in seconds since the host booted.
  [[nodiscard]] Timeouts report(bool cloud_up, bool tunnels_up, long now);

 private:
  void save() const;

  std::string file_;
  long cloud_down_ = 0;  // since when; 0 while the link is up
  long tunnels_down_ = 0;
};

}  // namespace fenro::pelmar
