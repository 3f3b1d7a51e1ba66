// The second factor of users' logins: who has one, which codes are valid, and that each is valid
// once.
//
// /etc/config/ormel/totp.conf has a line for each user:
// NAME:STATE:NEED:SECRET:BEGUN:USED:MISSES:DIGESTS, where NAME is percent-encoded, STATE one of
// "off", "pending" and "on", NEED "required" or "free", SECRET base32, BEGUN the time at which a
// pending one began, USED the last step whose code has counted, MISSES the number of wrong codes
// for switching it off since the last login, and DIGESTS those of the unused recovery codes, with
// commas. Without the file no user has a second factor.
//
// totp.users in the same folder lists the users of the first file, one a line. A user listed there
// whose line is missing or damaged is refused: damage must not turn a second factor off.
//
// Both files are replaced whole under a lock, so readers need none.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "base/totp.h"

namespace fenro {

struct SecondFactor {
  enum class State { Off, Pending, On, Damaged };
  State state = State::Off;
  bool required = false;                // by an administrator
  std::string secret{};                 // base32
  std::int64_t begun = 0;               // seconds since the epoch
  totp::Step used = 0;                  // codes of this and earlier steps do not count any more
  int misses = 0;                       // wrong codes in a row for switching it off
  std::vector<std::string> recovery{};  // digests

  // Whether a login without a code is refused.
  [[nodiscard]] bool asks() const { return state == State::On || state == State::Damaged; }
  // Required, but the user has not set it up.
  [[nodiscard]] bool is_missing() const { return required && !asks(); }

  bool operator==(const SecondFactor&) const = default;
};

// "off", "pending", "on" or "damaged", as in the file.
[[nodiscard]] std::string_view name_of(SecondFactor::State state);

inline constexpr std::int64_t PENDING_SECONDS = 600;
inline constexpr std::size_t RECOVERY_CODES = 8;
inline constexpr int MOST_MISSES = 5;

// What is wrong with the second factor of a login. Check_NAS_User_Password returns these numbers
// besides 0 and -1, which says nothing about a second factor.
enum class FactorRefusal : int {
  None = 0,
  Absent = -4101,      // no code in the password
  Wrong = -4102,       // no code of this secret
  Late = -4103,        // a code of some minutes before or after: the clocks differ
  Used = -4104,        // it has counted before
  NotSetUp = -4105,    // required, and the user has none
  Damaged = -4106,     // the file does not say what the user's is
  NotWritten = -4107,  // it could not be noted that the code is used
  NoLibrary = -4108,   // codes cannot be computed
};

// For the administrator's log, with a word that can be searched for; null for any other number.
[[nodiscard]] const char* reason_of_factor(int result);

// The exit status by which a program passes one of these numbers on, and back; 0 for others.
[[nodiscard]] int status_of_factor(int result);
[[nodiscard]] int factor_of_status(int status);

// What a user with a second factor types: the password, followed by a code or a recovery code; or
// both as OpenVPN's clients send them, "SCRV1:BASE64:BASE64".
struct TypedLogin {
  std::string password;
  std::string code;  // empty without any
};
[[nodiscard]] TypedLogin split_login(std::string_view typed);

// The password of a user without a second factor. An OpenVPN profile may still ask for a code,
// which is ignored.
[[nodiscard]] std::string without_challenge(std::string_view typed);

// Whether a code counts at this time; if so it is marked as used in `factor`.
[[nodiscard]] FactorRefusal take_code(SecondFactor& factor, std::string_view code,
                                      std::int64_t now);

// Replaces the recovery codes and returns the new ones, of which only digests are stored. Empty
// when the kernel gives no random numbers, or codes cannot be computed.
[[nodiscard]] std::vector<std::string> renew_recovery(SecondFactor& factor);

// The first file reduced to the users who must have a second factor.
[[nodiscard]] std::string requirements_in(std::string_view conf);

class SecondFactors {
 public:
  explicit SecondFactors(std::string folder = "/etc/config/ormel",
                         std::string lock = "/run/fenro/totp.lock");

  // Whether the first file exists; costs one system call.
  [[nodiscard]] bool exist() const;

  [[nodiscard]] SecondFactor of(std::string_view user) const;

  // Reads, changes and writes a user's line; nothing is written when `edit` returns false. A line
  // that says nothing is removed. Returns false when the files cannot be read or written.
  [[nodiscard]] bool change(std::string_view user,
                            const std::function<bool(SecondFactor& factor)>& edit) const;

  // Restores who must have a second factor from an earlier text of the first file, and nothing
  // else: secrets and used codes are never rolled back. False when the files cannot be written.
  [[nodiscard]] bool require_as(std::string_view conf) const;

  // Adds the entries of a copy of the first file. No user loses a second factor or gets back codes
  // that were used since. Returns false when the files cannot be written.
  [[nodiscard]] bool restore(std::string_view conf) const;
  // Returns whether restore() would change anything.
  [[nodiscard]] bool differ_from(std::string_view conf) const;

  // Uses up a user's code: of all processes that try the same one, one succeeds.
  [[nodiscard]] FactorRefusal use(std::string_view user, std::string_view code) const;

 private:
  [[nodiscard]] bool change_line(const std::string& name,
                                 const std::function<bool(SecondFactor& factor)>& edit) const;

  std::string conf_;
  std::string users_;
  std::string lock_;
};

}  // namespace fenro
