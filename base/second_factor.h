// The second factor of users' logins: who has one, what counts as its code, and that each code
// counts once.
//
// /etc/config/ormel/totp.conf has a line for each user:
// NAME:STATE:NEED:SECRET:BEGUN:USED:MISSES:DIGESTS, where NAME is percent-encoded, STATE one of
// "off", "pending" and "on", NEED "required" or "free", SECRET base32, BEGUN the time at which a
// pending one began, USED the last step whose code has counted, MISSES how often it was to be
// switched off with a wrong code since the last login, and DIGESTS those of the unused recovery
// codes, with commas. Without the file no user has a second factor.
//
// totp.users beside it names those whom the first file concerns, a line each. Such a user whose
// line is missing or damaged is refused: damage must not turn a second factor off.
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

// What a user with a second factor types: the password, and behind it a code or a recovery code; or
// both as OpenVPN's clients send them, "SCRV1:BASE64:BASE64".
struct TypedLogin {
  std::string password;
  std::string code;  // empty without any
};
[[nodiscard]] TypedLogin split_login(std::string_view typed);

// What a user without a second factor has typed as the password: some have a profile of OpenVPN
// that still asks for a code, whatever they type there.
[[nodiscard]] std::string without_challenge(std::string_view typed);

// Whether a code counts at this time; if so it is marked as used in `factor`.
[[nodiscard]] FactorRefusal take_code(SecondFactor& factor, std::string_view code,
                                      std::int64_t now);

// New recovery codes in the place of those before: the codes, which are kept nowhere. Empty when
// the kernel gives no random numbers, or codes cannot be computed.
[[nodiscard]] std::vector<std::string> renew_recovery(SecondFactor& factor);

// A text of the first file with nothing but of whom a second factor is required.
[[nodiscard]] std::string requirements_in(std::string_view conf);

class SecondFactors {
 public:
  explicit SecondFactors(std::string folder = "/etc/config/ormel",
                         std::string lock = "/run/fenro/totp.lock");

  // Whether the service has any; one look at the file's name.
  [[nodiscard]] bool exist() const;

  [[nodiscard]] SecondFactor of(std::string_view user) const;

  // Reads, changes and writes a user's line; nothing is written when `edit` returns false. A line
  // that says nothing is removed. Returns false when the files cannot be read or written.
  [[nodiscard]] bool change(std::string_view user,
                            const std::function<bool(SecondFactor& factor)>& edit) const;

  // Makes of whom one is required the same as in an earlier text of the first file, and leaves all
  // else as it is: secrets and used codes never go back. False when the files cannot be written.
  [[nodiscard]] bool require_as(std::string_view conf) const;

  // Adds the entries of a copy of the first file. No user loses a second factor or gets back codes
  // that were used since. Returns false when the files cannot be written.
  [[nodiscard]] bool restore(std::string_view conf) const;
  // Returns whether restore() would change anything.
  [[nodiscard]] bool differ_from(std::string_view conf) const;

  // Lets a code of a user count, once among all processes.
  [[nodiscard]] FactorRefusal use(std::string_view user, std::string_view code) const;

 private:
  [[nodiscard]] bool change_line(const std::string& name,
                                 const std::function<bool(SecondFactor& factor)>& edit) const;

  std::string conf_;
  std::string users_;
  std::string lock_;
};

}  // namespace fenro
