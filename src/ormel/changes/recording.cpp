#include "ormel/changes/recording.h"

namespace ormel::changes {

Recording::Recording(const Origin& origin, bool copies) {
  if (!snapshots_.wanted()) return;
  if (!lock_.emplace(Turn::CHANGE)) {
    refusal_ =
        "settings are being restored: try again in a few seconds, and if that goes on, look at "
        "/run/fenro/changes.lock";
    return;
  }
  if (copies) id_ = snapshots_.take(origin, not_undoable_);
}

Recording::~Recording() {
  const std::optional<Snapshot> snapshot = snapshots_.find(id_);
  if (snapshot && snapshots_.changed_since(*snapshot).empty()) snapshots_.drop(id_);
}

}  // namespace ormel::changes
