// What every check of a user's login shares: one at a time for each user, and the count of wrong
// passwords.
//
// A check asks whether the user is blocked, checks the password and then counts. Without a turn,
// checks at the same time would all pass the first step before one of them has counted.
#pragma once

#include <string_view>

#include "base/handle.h"

namespace fenro {

// The turn of one login of a user, across processes and threads; it ends with the object. Waits at
// most ten seconds.
class LoginTurn {
 public:
  explicit LoginTurn(std::string_view user);
  // False when the other logins of the user take too long, or the folder of the locks cannot be
  // used: refuse then.
  explicit operator bool() const { return static_cast<bool>(fd_); }

 private:
  Fd fd_;
};

// Returns whether the policy on wrong passwords blocks the user. A user who cannot be looked up
// counts as blocked, or a stopped log database would allow unlimited guesses.
[[nodiscard]] bool is_blocked(std::string_view user);

// Counts a wrong password, or forgets those before a right one. Returns false when the log database
// does not answer.
[[nodiscard]] bool count_login(std::string_view user, bool good);

}  // namespace fenro
