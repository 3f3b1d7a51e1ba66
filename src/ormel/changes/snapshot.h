// Copies of all state, made before a change, so that it can be taken back.
//
// A snapshot is a folder /var/lib/ormel/snapshots/NUMBER, for root alone, with the copies under
// "0", "1" … and manifest.json, which is written last and makes it count:
//   {"format":1,"time":SECONDS,"user":TEXT,"via":TEXT,"what":TEXT,
//    "files":[{"path":TEXT,"sha256":TEXT,"size":BYTES}...]}
// The number of a file in the list is the name of its copy. A copy that equals that of an earlier
// snapshot is a hard link to it. The oldest are deleted: 20 are kept, and 20 MiB; one with a file
// "held" stays.
#pragma once

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <vector>

namespace ormel::changes {

// Who changes something, from where, and what.
struct Origin {
  std::string user{};
  std::string via{};   // "web 192.0.2.5", "ormelctl"
  std::string what{};  // a route or a command
};

struct Copy {
  std::string path;
  std::string sha256;
  std::uint64_t size = 0;
};

struct Snapshot {
  int id = 0;
  std::time_t time = 0;
  Origin origin{};
  std::vector<Copy> files{};

  // The copy of a path; null when there was no file of it.
  [[nodiscard]] const Copy* find(const std::string& path) const;
};

class Snapshots {
 public:
  static constexpr const char* STATE_FOLDER = "/var/lib/ormel";
  static constexpr size_t MOST = 20;
  static constexpr std::uint64_t MOST_BYTES = std::uint64_t{20} << 20;

  // `root` comes before all paths of state, and before the folder.
  explicit Snapshots(std::string root = {});

  // Whether this host keeps any.
  [[nodiscard]] bool wanted() const;
  // Copies all state. Returns its number; 0 when that failed, with nothing left and why in
  // `reason`. Damaged settings get a copy beside them, too, vpn.conf.damaged, which outlives the
  // snapshots: the next save would replace them by what could be read of them, which is nothing.
  [[nodiscard]] int take(const Origin& origin, std::string& reason) const;
  // The newest first. Unfinished and damaged ones are left out.
  [[nodiscard]] std::vector<Snapshot> list() const;
  [[nodiscard]] std::optional<Snapshot> find(int id) const;
  // The content of a file then. Nothing when the copy is missing or does not match its digest.
  [[nodiscard]] std::optional<std::string> content(const Snapshot& snapshot,
                                                   const std::string& path) const;
  // The paths of files whose content is another one now, without what tunnels have written.
  [[nodiscard]] std::vector<std::string> changed_since(const Snapshot& snapshot) const;
  void drop(int id) const;
  // A snapshot that something waits for outlives newer ones. False when that cannot be noted.
  [[nodiscard]] bool hold(int id) const;
  void release(int id) const;

  [[nodiscard]] const std::string& root() const { return root_; }

 private:
  [[nodiscard]] std::string folder_of(int id) const;
  // Deletes what is too much, but never `newest`.
  void prune(int newest) const;
  [[nodiscard]] std::vector<int> ids() const;
  [[nodiscard]] std::optional<Snapshot> read(int id) const;
  void keep_damaged_settings() const;
  [[nodiscard]] bool fill(const std::string& folder, const Origin& origin) const;
  [[nodiscard]] bool keep(const std::string& target, const std::string& text, const Copy& copy,
                          const std::optional<Snapshot>& before) const;

  std::string root_;
  std::string folder_;
};

// What counts as the content of a file of state: its settings in vpn.conf, in totp.conf of whom a
// second factor is required, its bytes elsewhere.
[[nodiscard]] std::string settled_content(const std::string& path, const std::string& text);

}  // namespace ormel::changes
