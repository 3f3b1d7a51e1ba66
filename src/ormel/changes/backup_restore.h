// Puts the state of a backup in the place of this host's.
//
// Whatever part is restored is as in the backup afterwards: a file that the backup lacks goes.
// vpn.conf is not copied: its records are loaded and saved by the pool, so that nothing but known
// keys comes in, and what only a live tunnel has is left out. Servers and tunnels are interrupted
// only where something of them differs.
#pragma once

#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "ormel/changes/backup.h"
#include "ormel/config/record.h"

namespace ormel::changes {

// What of a backup is wanted.
struct Selection {
  bool servers = true;   // sections of vpn.conf
  bool profiles = true;  // the same, with the files of imported ones
  std::set<Part> parts{};

  [[nodiscard]] static Selection all();
  // Reads names separated by commas: "profiles,rights". A fault names the wrong one.
  [[nodiscard]] static Fault read(std::string_view names, Selection& out);
};
// The names that `read` takes, separated by commas.
[[nodiscard]] std::string selectable();

// A record for people: "openvpn server", "office (pptp/1)".
[[nodiscard]] std::string label_of(const config::BaseConfig& record);

struct Restored {
  std::vector<std::string> changed{}, added{}, removed{};  // files, and sections of vpn.conf
  std::vector<std::string> interrupted{};                  // servers and tunnels
  std::vector<std::string> warnings{};
  size_t same = 0;  // files that were so already
};

// The same as {"changed":[…],"added":[…],"removed":[…],"interrupted":[…],"warnings":[…],"same":n}.
[[nodiscard]] Json document_of(const Restored& restored);

// Why this host's settings cannot be kept beside what is selected: they are damaged, and only all
// servers and profiles of a backup can take their place. No fault when they can.
[[nodiscard]] Fault refusal_for_settings(const Selection& selection);

// What restoring would do; nothing is written.
[[nodiscard]] Fault preview(const Backup& backup, const Selection& selection, Restored& out);
// Restores, and puts what differs into effect. A fault says what was done until then; the same
// restore once more finishes it.
[[nodiscard]] Fault restore(const Backup& backup, const Selection& selection, Restored& out);

// Adds the client profiles of a backup as copies beside those that are there, in free slots, off,
// with " (copy)" after their names. One that cannot be beside the present ones is a warning. Files
// are written only where `dry` is false.
[[nodiscard]] Fault copy_profiles(const Backup& backup, bool dry, Restored& out);

}  // namespace ormel::changes
