// Until when users may use the servers, how many devices of their own each may have at the
// WireGuard server, and whose device is whose. What a user may use at all is in the store of
// rights, which has no place for any of this.
//
// /var/lib/ormel/grants.json is {"grants":[{"user":BASE64,"devices":NUMBER,
// "until":{TYPE:SECONDS...}}...],"devices":[{"key":PUBLIC KEY,"owner":BASE64}...]} with TYPE a
// server as the bit of its type in decimal digits, and SECONDS since the epoch. A right without a
// date has no end. Writers replace the file as a whole under a lock, so readers need none.
//
// A missing file means no end dates and no devices. A damaged file is never replaced: the last good
// copy of it, grants.json.good, counts until somebody has repaired the file. Without a copy the
// readable entries of the damaged file count. The keeper makes the copy after each change.
#pragma once

#include <cstdint>
#include <ctime>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "base/handle.h"

namespace fenro {

struct Grant {
  std::string user{};                             // any bytes
  int devices = 0;                                // how many the user may have
  std::map<std::uint32_t, std::int64_t> until{};  // by server

  [[nodiscard]] bool is_empty() const { return devices == 0 && until.empty(); }
  // When the use of a server ends; 0 for never.
  [[nodiscard]] std::int64_t end_of(std::uint32_t server) const;
  // The servers whose use has ended, as a mask.
  [[nodiscard]] std::uint32_t ended(std::time_t now) const;
};

struct OwnedDevice {
  std::string key{};  // public
  std::string owner{};
};

struct GrantBook {
  std::vector<Grant> grants{};
  std::vector<OwnedDevice> devices{};
  bool damaged = false;
  bool is_copy = false;  // the file is damaged, and this is its last good copy

  // The grant of a user, or an empty one.
  [[nodiscard]] Grant of(std::string_view user) const;
  // Replaces the user's grant; an empty one removes it.
  void put(Grant grant);
  [[nodiscard]] std::vector<std::string> keys_of(std::string_view user) const;
  // Empty for a device without an owner.
  [[nodiscard]] std::string owner_of(std::string_view key) const;
  // Removes the key, or puts another one in its place.
  void replace_key(std::string_view key, const std::string& other);
  // The earliest date; 0 without any.
  [[nodiscard]] std::int64_t next_end() const;
};

inline constexpr const char* GRANTS = "/var/lib/ormel/grants.json";
inline constexpr std::int64_t LAST_SECOND = 253402300799;  // of the year 9999
inline constexpr int MOST_DEVICES = 100;

[[nodiscard]] bool has_grants(const char* file = GRANTS);
[[nodiscard]] GrantBook read_grants(const std::string& file = GRANTS);

// Makes the copy of a file that is whole, and removes that of a missing one. False when it could
// not be written.
bool keep_good_copy(const std::string& file = GRANTS);

// Returns whether the user's right to a server has expired. Costs one failed open where no dates
// are stored.
[[nodiscard]] bool has_ended(std::string_view user, std::uint32_t server,
                             const std::string& file = GRANTS,
                             std::time_t now = std::time(nullptr));

// Locks the grants for a change. Waits at most ten seconds for other writers.
class GrantChange {
 public:
  explicit GrantChange(std::string file = GRANTS,
                       const std::string& lock = "/run/fenro/grants.lock");
  // False when the lock could not be taken, or the file is damaged.
  explicit operator bool() const { return lock_ && !book.damaged; }
  [[nodiscard]] bool save() const;

  GrantBook book{};

 private:
  std::string file_;
  Fd lock_;
};

}  // namespace fenro
