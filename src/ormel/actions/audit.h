// Records who has changed what: one row of the audit trail for each action that changes something,
// whichever program it came by.
//
// A host without the folder /var/lib/ormel/audit keeps no trail. An action is never refused because
// its row cannot be written: the first failure of an outage is an event, and the row that follows
// the outage says how many are missing.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "base/types.h"
#include "ormel/actions/audit_state.h"
#include "ormel/actions/audit_trail.h"
#include "ormel/actions/audit_witness.h"

namespace ormel::audit {

// The result of an action whose process ended before the action did.
constexpr int UNFINISHED = -1;

// Who acts, and from where.
struct Origin {
  std::string user{}, via{}, ip{};
};

// The person at a command line: the user who logged in to this session, or the caller of sudo, with
// the terminal and the address of the SSH client. `program` begins `via`.
[[nodiscard]] Origin local_origin(const std::string& program);

// Whether this host keeps a trail.
[[nodiscard]] bool is_kept();
// The trail, where it is kept or not.
[[nodiscard]] Trail trail();

// Adds a row now, for what has happened without a Recorder. Does nothing on a host without a trail.
void note(const Origin& origin, const std::string& action, const std::string& subject,
          const std::vector<Change>& changes, int error);
// The same for a request that was refused for its session. At most MOST_REFUSALS of them in an hour
// are rows, so that a stranger cannot push the rows of others out of the trail.
constexpr int MOST_REFUSALS = 60;
void note_refusal(const Origin& origin, const std::string& action, const std::string& subject,
                  int error);

// "openvpn/3 (office)": the record of a type and index. Without a name it has the one in the pool.
[[nodiscard]] std::string subject_of(TYPE type, int index, const std::string& name = {});

// Looks at the settings before an action and after it, and adds the row. When the process ends in
// between, the row says UNFINISHED. What others change in the meantime is in the row, too.
class Recorder {
 public:
  Recorder() = default;  // records nothing
  Recorder(Origin origin, std::string action, std::string subject);
  Recorder(const Recorder&) = delete;
  Recorder& operator=(const Recorder&) = delete;
  ~Recorder();
  // Adds the row and returns `error`.
  int finish(int error);
  // The action has turned out to change nothing: no row.
  void drop();
  // The action begins only now: what has changed before is not part of it.
  void look_again();

 private:
  void add_row(int error) const;

  std::optional<Entry> entry_;
  State before_;
  Witness witness_;
};

// The same for the recorder of this process, if there is one.
void look_again();

// Where the folder of the trail is; for tests.
[[nodiscard]] std::string& parent_folder();

}  // namespace ormel::audit
