// Look-ups of accounts of the host, shared by all that ask whether one may still be used.
#pragma once

#include <cerrno>
#include <cstddef>
#include <ctime>
#include <optional>
#include <shadow.h>
#include <vector>

namespace fenro {

// Asks the name service with a buffer that grows until the answer fits.
template <typename Record, typename Ask>
std::optional<Record> look_up(std::vector<char>& buffer, Ask ask) {
  constexpr std::size_t FIRST = 4096;
  constexpr std::size_t LAST = std::size_t{16} << 20U;  // a longer list of members is no group
  for (buffer.resize(FIRST); buffer.size() <= LAST; buffer.resize(buffer.size() * 2)) {
    Record record{};
    Record* found = nullptr;
    const int error = ask(&record, buffer.data(), buffer.size(), &found);
    if (found) return record;
    if (error != ERANGE && error != EINTR) return {};
  }
  return {};
}

// Returns whether the account's password is locked or the account has expired. Only root can read
// that; for others the account counts as not locked.
[[nodiscard]] inline bool is_locked(const char* name) {
  constexpr std::time_t DAY = std::time_t{24} * 60 * 60;
  constexpr char LOCKED = '!';  // precedes the hash; an account with "*" has no password here, but
                                // may log in by other means
  std::vector<char> buffer;
  const auto record =
      look_up<spwd>(buffer, [name](spwd* s, char* text, std::size_t size, spwd** found) {
        return getspnam_r(name, s, text, size, found);
      });
  if (!record) return false;
  const bool expired = record->sp_expire >= 0 && std::time(nullptr) / DAY >= record->sp_expire;
  return expired || (record->sp_pwdp && *record->sp_pwdp == LOCKED);
}

}  // namespace fenro
