// Failed logins, counted for each user and for each address. The file "counters" in a folder that
// is closed to others:
//
//   dK3...                 32 random characters, made with the file
//   17 3 86400             a slot, its failures, when the first of them was (seconds since the host
//   started)
//
// A slot is computed from a digest of the name and the random characters, so the file holds no
// names and no outsider can work out which names share a slot. The number of slots is fixed: the
// file does not grow however many names and addresses are tried, and no attempt evicts another
// counter.
#pragma once

#include <chrono>
#include <ctime>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace fenro {

// The counters of the web login, which whatever else asks for the password of a session's user
// shares.
inline constexpr const char* WEB_LOGINS = "/run/fenro/login";

class LoginThrottle {
 public:
  static constexpr std::time_t WINDOW = std::time_t{15} * 60;  // counted from the first failure
  static constexpr int ADDRESS_LIMIT = 10;
  static constexpr int USER_LIMIT =
      20;  // more than one address may use up: it alone cannot lock a user out
  static constexpr unsigned SLOTS = 8192;

  struct Admission {
    std::time_t retry_after = 0;         // seconds; not 0 when the attempt is refused
    bool first_refusal = false;          // of this window
    std::chrono::milliseconds delay{0};  // to wait before the password is looked at
  };

  explicit LoginThrottle(std::string folder, unsigned slots = SLOTS)
      : folder_(std::move(folder)), slots_(slots) {}

  // Asks for one attempt and counts it as failed until it has succeeded: a hundred attempts at the
  // same time are a hundred. Nothing when it cannot be counted, and then the password must not be
  // looked at.
  [[nodiscard]] std::optional<Admission> admit(std::string_view user, std::string_view address,
                                               std::time_t now) const;

  // Takes the attempt back and clears the user's failures. Those of the address stay, or an
  // attacker with an account could try without limit. False when the file cannot be written.
  bool succeed(std::string_view user, std::string_view address, std::time_t now) const;

  // Seconds until attempts from an address are admitted again; 0 while they are. Nothing is
  // counted.
  [[nodiscard]] std::time_t retry_after(std::string_view address, std::time_t now) const;

  // Seconds since the host started, which cannot be set back.
  [[nodiscard]] static std::time_t clock();

 private:
  struct Counter {
    int failures = 0;
    std::time_t since = 0;
  };
  struct Limited {
    Counter& counter;
    int limit;
  };
  struct State {
    std::string key;
    std::map<unsigned, Counter> counters;  // by slot; the addresses' slots follow the users'
  };

  [[nodiscard]] bool load(State& state, std::time_t now) const;
  [[nodiscard]] bool save(const State& state) const;
  [[nodiscard]] unsigned user_slot(const State& state, std::string_view user) const;
  [[nodiscard]] unsigned address_slot(const State& state, std::string_view address) const;
  static void refuse(const Limited& row, std::time_t now, Admission& admission);
  static void charge(const Limited& row, std::time_t now, Admission& admission);

  std::string folder_;
  unsigned slots_;
};

}  // namespace fenro
