// Sends reports to the targets of keeper.conf, on a separate thread: a target that does not answer
// delays nothing else.
//
// A webhook gets a POST of JSON,
// {"schema":1,"host":…,"time":…,"event":KIND,"subject":…,"text":…,"reason":…}, with the header
// "X-Ormel-Signature: sha256=HEX": the HMAC-SHA256 of the body under the target's secret. No
// redirection is followed, an answer takes ten seconds at most, and a delivery has three attempts.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <list>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "daemons/keeper/events.h"
#include "daemons/keeper/rate_limit.h"
#include "daemons/keeper/settings.h"

namespace fenro::keeper {

// The HMAC-SHA256 of a text, in hexadecimal. Empty when it cannot be computed.
[[nodiscard]] std::string signature(const std::string& secret, std::string_view text);

// Random bytes in hexadecimal, as a new secret. Empty when the kernel has none.
[[nodiscard]] std::string new_secret();

// How the last delivery to a target has ended.
struct Outcome {
  std::time_t at = 0;
  long status = 0;  // of HTTP, 0 for mail or without an answer
  long milliseconds = 0;
  std::string error{};  // empty when it has arrived
};

class Notifier {
 public:
  Notifier();
  Notifier(const Notifier&) = delete;
  Notifier& operator=(const Notifier&) = delete;
  ~Notifier();

  // Queues a report for all targets that want its kind.
  void send(const Report& report);
  // Queues a test for one target, sent once. The number is for test_outcome(); 0 without a target
  // of that name.
  [[nodiscard]] std::uint64_t test(const std::string& name);
  [[nodiscard]] std::optional<Outcome> test_outcome(std::uint64_t number) const;
  [[nodiscard]] std::optional<Outcome> last_outcome(const std::string& name) const;

 private:
  using Clock = std::chrono::steady_clock;
  struct Delivery {
    Target target;
    std::string subject;  // of a mail
    std::string body;
    int attempts = 0;  // left
    Clock::time_point due{};
    std::uint64_t test = 0;
  };

  void run();
  void queue(const Target& target, const Report& report, int attempts, std::uint64_t test);
  void summarize(Clock::time_point now);

  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::list<Delivery> queue_;
  RateLimit limit_;
  std::map<std::string, Outcome> outcomes_;  // by target
  std::map<std::uint64_t, Outcome> tests_;   // the latest ones
  std::uint64_t last_test_ = 0;
  bool ending_ = false;
  std::thread thread_;
};

}  // namespace fenro::keeper
