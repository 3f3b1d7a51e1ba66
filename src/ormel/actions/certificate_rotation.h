// Keeps the certificates of the OpenVPN server alive: renewal, and replacing its authority without
// locking clients out.
//
// The platform's tool ovpn-keys does each step and keeps the state of a rotation in a file.
#pragma once

#include <ctime>
#include <string>
#include <vector>

#include "ormel/actions/certificates.h"

namespace ormel::certificates {

// A line KEY=VALUE for phase, overlap, begun, change and end, in seconds.
inline constexpr const char* ROTATION_FILE = "/etc/openvpn/keys/rotation";

enum class Phase {
  None,
  Overlap,   // profiles from now on trust both authorities, the old one signs
  Changing,  // the change-over was interrupted
  Changed,   // the new one signs, the old one is still in profiles
};

// "none", "overlap", "changing" or "changed".
[[nodiscard]] const char* name_of(Phase phase);

struct Rotation {
  Phase phase = Phase::None;
  std::time_t overlap = 0;  // seconds
  std::time_t begun = 0;    // seconds since 1970, as the next two
  std::time_t change = 0;   // when the new authority begins to sign
  std::time_t end = 0;      // when the old one is no longer trusted
};

// The rotation in the text of its file; one without a phase for any other text.
[[nodiscard]] Rotation parse_rotation(const std::string& text);
// The step that the server's next start takes at once, as a clause: "their change-over was due on
// DATE". Empty for none.
[[nodiscard]] std::string overdue_step(const Rotation& state, std::time_t now);
// The rotation that is under way.
[[nodiscard]] Rotation rotation();

// Each does one step. Returns 0, ERR_VALUE for an overlap outside of 1 hour to 400 days, or
// ERR_CMD_FAILED, with `reason` saying what to do. `renew`, and an `advance` that changes over,
// restart a server that runs, which ends its sessions.
[[nodiscard]] int renew(std::string& reason);
[[nodiscard]] int rotate(long overlap, std::string& reason);
[[nodiscard]] int advance(std::string& reason);
// Finishes a change-over that was interrupted.
[[nodiscard]] int settle(std::string& reason);
// Restarts a server that still runs with an older certificate, as a killed renewal leaves it.
[[nodiscard]] int take_up(std::string& reason);
// Forgets the new authority, as long as it does not sign.
[[nodiscard]] int cancel(std::string& reason);

// What the keeper has to do.
enum class Due { Nothing, Renew, Advance, Settle, TakeUp };
struct Moment {
  std::time_t now = 0;
  int hour = 0;           // local time
  bool is_used = false;   // somebody is connected to the OpenVPN server
  bool is_older = false;  // that server runs with an older certificate than the present one
};
constexpr int NIGHT_BEGIN = 3, NIGHT_END = 5;
constexpr long DAY = 86400;
constexpr long RENEW_TIME = 30 * DAY;  // before the end: at night, without connected users
constexpr long LAST_TIME = 7 * DAY;    // before the end, or after the day of a change: in any case

// Whether the server runs with an older certificate than the present one.
[[nodiscard]] bool runs_with_older();

// What is due; nothing while the clock is before the authority's begin.
[[nodiscard]] Due due(const std::vector<Certificate>& all, const Rotation& state,
                      const Moment& moment);
// When the server's certificate is renewed at the latest; 0 without one.
[[nodiscard]] std::time_t renewal_begin(const std::vector<Certificate>& all);

// How near the end of a certificate is, in the steps that each cause one warning: more than 30
// days, 30 days, 7 days, 1 day, over.
constexpr int NO_STAGE = 0, OVER = 4;
[[nodiscard]] int stage_of(const Certificate& one, std::time_t now);

// A user of the OpenVPN server whose profile may not trust the new authority.
struct Holder {
  std::string user{};
  std::time_t last_login = 0;     // 0 for none that is known
  std::time_t last_download = 0;  // of a profile by this user; 0 for none that is known
};
// Users who have the right and have downloaded no profile since `begun`.
[[nodiscard]] std::vector<Holder> holders_of_old(std::time_t begun);

}  // namespace ormel::certificates
