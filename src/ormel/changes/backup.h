// A backup: all state of the service in one encrypted file.
//
// It is a sealed text (base/seal.h) of a tar, in which manifest.json comes first:
//   {"format":1,"version":"0.1.0","host":"office","time":1795625173,
//    "files":[{"path":"/etc/config/vpn.conf","size":4711,"sha256":"…"}]}
// The files follow in that order, each under its path without the first slash. Only paths of the
// table of state are ever written or taken; modes and owners come from that table, too.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "ormel/base/handle.h"
#include "ormel/changes/state_files.h"

namespace ormel::changes {

inline constexpr std::size_t MOST_BACKUP = std::size_t{32} << 20U;  // bytes of the encrypted file

struct BackupFile {
  std::string path;
  std::string content;
};

struct Backup {
  std::string version{};  // of the program that made it
  std::string host{};
  int64_t time = 0;  // seconds since the epoch
  std::vector<BackupFile> files{};

  [[nodiscard]] const BackupFile* find(std::string_view path) const;
};

// Why something was refused; no fault has the code 0.
struct Fault {
  int code = 0;
  std::string reason{};
  std::string advice{};

  explicit operator bool() const { return code != 0; }
};

// Whether a passphrase may protect a backup: 8 to 1024 bytes.
[[nodiscard]] Fault check_passphrase(const std::string& passphrase);

// The state as it is now, with the name of this host.
[[nodiscard]] Fault collect(Backup& out);
[[nodiscard]] Fault write_backup(const Backup& backup, const std::string& passphrase,
                                 std::string& out);
// Takes the tar of a backup apart. `out` is not to be used after a fault.
[[nodiscard]] Fault unpack_backup(const std::string& tar, Backup& out);
// Takes a backup apart and checks all of it; `out` is empty after a fault.
[[nodiscard]] Fault read_backup(std::string_view sealed, const std::string& passphrase,
                                Backup& out);

// What a backup contains, for people: {"version","host","time","files","bytes","servers" (those
// that are on),"profiles","devices","users","parts"}, the lists by name.
[[nodiscard]] Json contents(const Backup& backup);
// The same in one line: "14 profiles, 5 servers, 3 devices, rights of 8 users, gateway".
[[nodiscard]] std::string summary(const Json& contents);

}  // namespace ormel::changes
