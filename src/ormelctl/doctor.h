// The doctor: looks at the host, or walks the path of one profile step by step and stops where it
// breaks.
#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "ormelctl/profile.h"

namespace ormelctl {

enum class Mark { Ok, Warning, Failure, Skipped };

// The outcome of one step.
struct Finding {
  std::string step{};
  Mark mark = Mark::Ok;
  std::string text{};
  std::string cure{};  // what to do about it; empty for a good one
};
using Findings = std::vector<Finding>;

[[nodiscard]] Finding good(std::string text);
[[nodiscard]] Finding warning(std::string text, std::string cure = {});
[[nodiscard]] Finding failure(std::string text, std::string cure = {});
[[nodiscard]] Finding skipped(std::string text);

// Called with all findings so far, after each step.
using Progress = std::function<void(const Findings& findings)>;

// Whether the host is in order. Changes nothing.
[[nodiscard]] Findings examine_host();

// Files of state that are damaged, so that what is shown is not what was set. The steps are
// "settings" for that of servers and tunnels, and "access" for that of the ends of rights.
[[nodiscard]] Findings damaged_files();
// Whether the first of them is that of the settings.
[[nodiscard]] bool settings_are_damaged(const Findings& damaged);

// The steps of a profile, at most 40 seconds. Tries a login at most once, and never while the
// tunnel is up or on its way. The real tunnel is not touched.
[[nodiscard]] Findings examine_profile(const Profile& profile, const Progress& progress);

// What remains of the time of a run.
class Deadline {
 public:
  explicit Deadline(std::chrono::seconds time) : end_(std::chrono::steady_clock::now() + time) {}
  // Whole seconds, at most `most` and at least 1.
  [[nodiscard]] int seconds(int most) const;

 private:
  std::chrono::steady_clock::time_point end_;
};

// A program that is run for a limited time.
struct LimitedRun {
  bool in_time = false;
  int status = -1;  // exit status, negative for none
  std::string out{};
};
// Runs a program with `input`, until it ends or `enough` holds for one of its lines, at most
// `seconds`. It gets SIGTERM then. Both its streams are read.
[[nodiscard]] LimitedRun run_limited(
    const std::vector<std::string>& command, const std::string& input, int seconds,
    const std::function<bool(const std::string& line)>& enough = {});

// Whether an OpenVPN server lets the profile in: the steps "server", "certificate" and "login" by
// one daemon without an interface.
[[nodiscard]] Findings try_openvpn(const std::string& copy, const std::string& user,
                                   const std::string& password, int seconds);
// The same findings from what such a daemon has printed.
[[nodiscard]] Findings read_openvpn_log(const std::string& log);

// Whether a Drovik server takes the profile's key and login: the steps "certificate" and "login" by
// one login, which ends at once.
[[nodiscard]] Findings try_drovik(const std::string& section, const std::string& interface,
                                  int seconds);

// Packets that servers answer before anyone has logged in, and whether an answer is one.
[[nodiscard]] std::string pptp_request();
[[nodiscard]] bool is_pptp_answer(const std::string& answer);
[[nodiscard]] std::string ike_request(const std::string& cookie);  // 8 bytes
[[nodiscard]] bool is_ike_answer(const std::string& answer, const std::string& cookie);
[[nodiscard]] std::string dtls_request();
[[nodiscard]] bool is_dtls_answer(const std::string& answer);

// Sends `request` to a server and returns its first answer, empty without one.
[[nodiscard]] std::string ask_server(const std::string& address, int port, bool tcp,
                                     const std::string& request, int seconds);

}  // namespace ormelctl
