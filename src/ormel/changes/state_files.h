// The table of all state of the VPN service: what a snapshot copies, what goes back, and what a
// backup contains.
//
// State is what an administrator has set and what cannot be made from anything else. Left out on
// purpose:
// - files that the start scripts make from state: /etc/config/ppp, /etc/config/openvpn/server.conf,
//   /var/lib/fenro/guard.nft, the table of external devices
// - logs, counters of failed logins and the log database: they say what was, and must not go back
// - the membership in the SD-WAN (pelmar.conf, tamid.conf, cloudagent.cfg, /var/lib/fenro/pelmar):
//   its identity belongs to one appliance, and its tokens are used up by others
// - the accounts of the host and their hashes (smbpasswd): an old password must not come back
// - the tokens of other programs (tokens.json): one that was removed must not come back
// - the web server's certificate and the host's own settings (Corlin.conf, TZ)
// All of it belongs to root.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

namespace ormel::changes {

enum class Part {
  Settings,       // vpn.conf: all servers and client profiles
  Profiles,       // the files of imported OpenVPN profiles
  Peers,          // devices of the WireGuard server
  Certificates,   // authority and certificate of the OpenVPN server
  Rights,         // who may use which server, and until when
  SecondFactors,  // whose logins need a code; a change that goes back takes requirements alone
  BlockPolicy,    // what failed logins cost
  Holds,          // who is kept out for a time, and the limits of devices
  Gateway,        // default gateway policy
  Guard,          // what may leave without a tunnel
  Keeper,         // what is kept running, and who is notified
  Address,        // the host's public name or address, for the configurations of others
};

// What puts another content of a file into effect.
enum class Refresh {
  NONE,      // it is read at each use
  SECTIONS,  // start scripts of the servers and profiles whose sections of vpn.conf differ
  PROFILE,   // start script of the profile whose index the name ends with
  SERVER,    // `script` with `action`, where its server is on
  SCRIPT,    // `script` with `action`
  GATEWAY,   // a call to the network daemon, which reads the policy
};

struct StateFile {
  Part part;
  const char* path;   // a file, or the folder of those that `names` matches
  const char* names;  // pattern of names in the folder, null for a single file
  mode_t mode;
  bool secret;  // holds secrets, so that its text is not shown as it is
  Refresh refresh;
  const char* script = nullptr;
  const char* action = nullptr;
};

// The rows in the order in which their content is put in place and into effect.
[[nodiscard]] std::span<const StateFile> state_files();

// The row that an absolute path belongs to; null for any other path, also for one that a folder's
// pattern would reach by "..", an empty name or a subfolder.
[[nodiscard]] const StateFile* find_state_file(std::string_view path);

// The paths of all files of state below `root` that exist, in the order of the rows, then by name.
// Links and what is no regular file are left out.
[[nodiscard]] std::vector<std::string> existing_state(const std::string& root = {});

// Parts by their names on a command line and in a manifest: "settings", "block-policy".
[[nodiscard]] const char* name_of(Part part);
[[nodiscard]] std::optional<Part> part_named(std::string_view name);

}  // namespace ormel::changes
