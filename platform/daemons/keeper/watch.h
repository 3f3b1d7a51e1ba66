// Keeps what is on running: looks at all wanted servers and tunnels once a second, and starts by
// their scripts what has ended. The scripts decide under their own locks, so nothing is started
// that was turned off meanwhile.
#pragma once

#include <chrono>
#include <ctime>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "common/json.h"
#include "daemons/keeper/backoff.h"
#include "daemons/keeper/child.h"
#include "daemons/keeper/events.h"
#include "daemons/keeper/tunnels.h"

namespace fenro::keeper {

enum class State { Starting, Running, Waiting, Failed, GivenUp, LeftAlone };

class Watch {
 public:
  explicit Watch(Reporter report) : report_(std::move(report)) {}

  // Notes what is on when the host starts, before anybody can change it. It is brought up after
  // go(), once there is a network.
  void boot();
  void go() { held_ = false; }
  void tick(Backoff::Time now);

  // Everything wanted, as the service's clients see it.
  [[nodiscard]] Json show() const;

 private:
  enum class Task { None, Keep, Forget, Resolve };
  struct Subject {
    Tunnel tunnel;
    timespec mark{};  // of the last start by a person
    State state = State::Starting;
    std::time_t since = 0;  // of the state
    Backoff backoff{};
    bool boot = false;      // wanted by the start of the host, not by a person
    bool ran = false;       // it has been seen running since the mark
    bool reported = false;  // that it does not run
    Backoff::Time died{};
    bool cleared = false;  // what it left has been taken away
    bool up = false;       // a client's tunnel
    std::time_t lost = 0;  // when that was last up
    int restarts = 0;
    std::time_t restarted = 0;
    std::string reason{};  // why it does not run, in words
    std::string code{};
    Task task = Task::None;  // of the child
    std::unique_ptr<Child> child{};
    bool silent = false;  // WireGuard: no handshake of late
    Backoff::Time looked{};
    Backoff::Time resolved{};
  };

  void read_marks();
  void run_jobs();
  void reap();
  void begin(Subject& subject, Task task);
  void step(Subject& subject, const Processes& processes, Backoff::Time now);
  void on_dead(Subject& subject, Backoff::Time now);
  void on_kept(Subject& subject, const Ended& ended, Backoff::Time now);
  void look_at_tunnel(Subject& subject, bool running);
  void look_at_handshake(Subject& subject, Backoff::Time now);
  void end_dead_sessions(const Processes& processes);
  static void set(Subject& subject, State state);
  void tell(const Subject& subject, std::string_view kind, Level level, const std::string& text);

  Reporter report_;
  std::map<std::string, Subject> subjects_;    // by section
  std::deque<std::vector<std::string>> jobs_;  // of the host's start, one after the other
  std::unique_ptr<Child> job_;
  bool held_ = false;                            // the jobs wait
  std::vector<Tunnel> booting_;                  // to be wanted once the jobs are done
  std::vector<std::unique_ptr<Child>> orphans_;  // whose subject is no longer there
};

}  // namespace fenro::keeper
