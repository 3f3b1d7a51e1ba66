// Puts the state of a snapshot back, and into effect: each file whole by a rename, then only what
// belongs to files that differ is stopped, started or asked to read again.
//
// What is to be done is written to /var/lib/ormel/pending/restore.json before the first file
// changes, and deleted after the last step. So a run that was killed is finished by the next one:
//   {"snapshot":NUMBER,"before":[STEP...],"after":[STEP...]} with STEP ["run","/etc/init.d/X"...]
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "ormel/changes/snapshot.h"

namespace ormel::changes {

// One step beside the files.
struct Step {
  enum class Kind {
    RUN,         // a program, and wait for it
    START,       // a program in the background
    REGISTER,    // announce a profile to the network daemon
    UNREGISTER,  // the opposite
    GATEWAY,     // the network daemon reads the gateway policy
  };
  Kind kind = Kind::RUN;
  std::vector<std::string> words{};  // of the program, or the section of the profile

  bool operator==(const Step&) const = default;
};

struct Plan {
  std::vector<std::string> files;  // that differ
  std::vector<Step> before;        // while the old settings are in place
  std::vector<Step> after;
  std::vector<std::string> failed{};  // programs of `after` that did not do their work
  std::string kept{};                 // why certificates that differ stay as they are
};

enum class Moment {
  RUNNING,  // tunnels and servers go on
  BOOT,     // none of them has been started yet: that is done later, by what the files say
};

class Restore {
 public:
  using Runner = std::function<bool(const Step& step)>;  // false for a failure

  explicit Restore(const Snapshots& snapshots, Runner runner = perform);

  [[nodiscard]] Plan plan(const Snapshot& snapshot) const;
  // 0, ERR_SAVE_FILE when a copy is damaged or a file cannot be written. The plan that was done is
  // in `done`.
  [[nodiscard]] int run(const Snapshot& snapshot, Plan& done, std::string& reason) const;
  // Finishes a run that did not end. True when there was none, or it is finished now.
  [[nodiscard]] bool finish(Moment moment) const;
  [[nodiscard]] bool unfinished() const;

  // What a step does on a host.
  static bool perform(const Step& step);

 private:
  [[nodiscard]] std::string settings_now() const;
  // The files to put back. Without the certificates where the OpenVPN server's next start would
  // take a step of their rotation again, whose day has passed; `why` says so then.
  [[nodiscard]] std::vector<std::string> files_of(const Snapshot& snapshot, std::string& why) const;
  [[nodiscard]] bool put_back(const Snapshot& snapshot, std::string& reason) const;
  [[nodiscard]] bool put_back(const Snapshot& snapshot, const std::string& path) const;
  std::vector<std::string> take(const std::vector<Step>& steps) const;  // those that failed

  const Snapshots& snapshots_;
  Runner runner_;
  std::string journal_;
};

// Whether a step is left out when the host starts, since the tunnels are started later.
[[nodiscard]] bool starts_tunnels(const Step& step);

// The servers and profiles that a plan stops or restarts, for people: "server openvpn", "profile
// far".
[[nodiscard]] std::vector<std::string> affected(const Plan& plan);

}  // namespace ormel::changes
