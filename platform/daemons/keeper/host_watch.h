// What the keeper watches beside the tunnels: the daemons of the bus, disks, and users who are
// locked.
#pragma once

#include <chrono>
#include <ctime>
#include <map>
#include <string>
#include <sys/stat.h>

#include "daemons/keeper/events.h"

namespace fenro::keeper {

class HostWatch {
 public:
  using Time = std::chrono::steady_clock::time_point;

  explicit HostWatch(Reporter report) : report_(std::move(report)) {}
  void tick(Time now);

 private:
  struct Daemon {
    bool seen = false;  // since the keeper started: a daemon that is not installed is no news
    bool dead = false;
    Time gone{};
  };

  void look_at_daemons(Time now);
  void look_at_disks();
  void look_at_users();

  Reporter report_;
  std::map<std::string, Daemon> daemons_;
  std::map<std::string, bool> full_;           // by folder
  std::map<std::string, std::time_t> locked_;  // by user, with the failure that locked him
  timespec database_{};                        // its last change
  std::time_t started_ = std::time(nullptr);   // who was locked before is no news
  Time looked_{};
};

}  // namespace fenro::keeper
