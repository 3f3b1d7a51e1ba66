// Sessions of the web interface as files, one a session, in a folder that is closed to others:
//
//   user = bob
//   uid = 1000
//   ip = 192.0.2.7
//   host_ip = 192.0.2.1
//   created = 1700000000
//
// The time of last use is the file's modification time: a request that refreshes it can then never
// bring back a session that another request ends at that moment.
#pragma once

#include <ctime>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <fenro/auth.h>

namespace fenro {

class SessionStore {
 public:
  static constexpr std::time_t IDLE_LIMIT = std::time_t{30} * 60;
  static constexpr std::time_t AGE_LIMIT = std::time_t{12} * 60 * 60;
  static constexpr std::time_t ACCOUNT_CHECK =
      60;  // seconds that a locked user's session may go on
  static constexpr std::size_t USER_LIMIT =
      20;  // sessions of one user; a further one ends the oldest

  // The store of the host.
  SessionStore();
  // A store in another folder, with another test for locked accounts.
  SessionStore(std::string folder, bool (*locked)(const char* user))
      : folder_(std::move(folder)), locked_(locked) {}

  // Begins a session of an existing user; a sid of eight random characters, or empty on failure.
  // Beyond USER_LIMIT the user's oldest sessions end.
  [[nodiscard]] std::string create(const std::string& user, const std::string& ip,
                                   const std::string& host_ip) const;

  // The valid session of that sid. With `touch` its time of last use becomes now. What has run out
  // is removed, and so is the session of a user whose account has been locked or has expired.
  [[nodiscard]] std::optional<_session> find(const char* sid, bool touch) const;

  // All valid sessions, by sid.
  [[nodiscard]] std::vector<_session> list() const;

  // False when there was none.
  bool end(const char* sid) const;

  // Ends all other sessions of a session's account. Returns their number.
  std::size_t end_others(const char* sid) const;

  // Ends whatever there is of a user, who may be removed by now. The number of files.
  std::size_t end_user(std::string_view user) const;

 private:
  [[nodiscard]] std::string path_of(const char* sid) const;
  [[nodiscard]] bool read(const char* sid, _session& session) const;
  void end_oldest(std::string_view user, std::string_view newest) const;

  std::string folder_;
  bool (*locked_)(const char* user);
};

}  // namespace fenro
