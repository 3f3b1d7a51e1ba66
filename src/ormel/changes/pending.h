// A change that goes back unless it is confirmed in time.
//
// There is at most one. It is in /var/lib/ormel/pending/change.json, for root alone, so that it
// outlives a crash and a restart of the host:
//   {"snapshot":NUMBER,"code":SHA-256,"owner":TEXT,"via":TEXT,"what":TEXT,"since":SECONDS,
//    "until":SECONDS,"boot":ID,"boot_until":SECONDS,"wrong":COUNT}
// The end counts by the time since the host has started, since clocks are set. After a restart of
// the host the time is over.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "ormel/changes/restore.h"
#include "ormel/changes/snapshot.h"

namespace ormel::changes {

constexpr long SHORTEST_SECONDS = 30;
constexpr long LONGEST_SECONDS = 600;
constexpr long DEFAULT_SECONDS = 90;

// The caller: a user of the web interface, or root on the command line, who may decide about all
// changes.
struct Asker {
  std::string user{};
  bool root = false;
};

struct PendingChange {
  int snapshot = 0;
  std::string code{};  // its digest
  Origin origin{};
  std::int64_t since = 0, until = 0;  // seconds since 1970
  std::string boot{};
  std::int64_t boot_until = 0;  // seconds since the start of the host
  int wrong = 0;                // codes so far

  [[nodiscard]] bool owned_by(const Asker& asker) const {
    return asker.root || asker.user == origin.user;
  }
  // 0 when the time is over.
  [[nodiscard]] std::int64_t seconds_left() const;
};

// How a call ended, with a sentence for people where it failed.
struct Verdict {
  int code = 0;
  std::string reason{};
};

class Pending {
 public:
  // What it does beside files.
  struct Host {
    // Starts a process that will go back at the end of the change of a snapshot.
    std::function<bool(int snapshot, long seconds)> start_timer;
    Restore::Runner run;
    // Reports settings that went back.
    std::function<void(const Origin& origin, const std::string& what, const Plan& done)> report;
  };

  explicit Pending(const std::string& root = {}, Host host = this_host());

  [[nodiscard]] std::optional<PendingChange> find() const;

  // From now on, all that changes goes back after `seconds`, unless `code` is said before.
  [[nodiscard]] Verdict begin(const Origin& origin, long seconds, std::string& code) const;
  // Keeps what has changed. Root may leave the code out.
  [[nodiscard]] Verdict confirm(const Asker& asker, std::string_view code) const;
  // Goes back at once.
  [[nodiscard]] Verdict revert(const Asker& asker) const;
  // Forgets a change that has not changed anything.
  void cancel(int snapshot) const;

  // What the timer calls: goes back when the time of this snapshot's change is over.
  [[nodiscard]] Verdict expire(int snapshot) const;
  // Finishes what a crash or a restart of the host has left: `BOOT` before anything is started.
  [[nodiscard]] Verdict recover(Moment moment) const;

  // Goes back to a snapshot, which can be taken back itself. Without a number to the newest.
  [[nodiscard]] Verdict undo(const Origin& origin, int id, Plan& done, Snapshot& restored) const;

  [[nodiscard]] const Snapshots& snapshots() const { return snapshots_; }

  static Host this_host();

 private:
  [[nodiscard]] bool store(const PendingChange& change) const;
  void forget(const PendingChange& change) const;
  [[nodiscard]] Verdict go_back(const PendingChange& change, const std::string& why) const;
  [[nodiscard]] Verdict go_back_unasked(const PendingChange& change, const std::string& why) const;

  Snapshots snapshots_;
  Host host_;
  std::string file_;
};

}  // namespace ormel::changes
