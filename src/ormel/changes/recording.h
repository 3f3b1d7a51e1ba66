// What surrounds each change: nothing goes back meanwhile, and it can be taken back afterwards.
//
// A host without the folder of snapshots has neither: it pays one look whether the folder is there.
#pragma once

#include <optional>
#include <string>

#include "ormel/changes/lock.h"
#include "ormel/changes/snapshot.h"

namespace ormel::changes {

class Recording {
 public:
  // Without copies nothing goes back meanwhile either, but the change cannot be taken back by
  // itself.
  explicit Recording(const Origin& origin, bool copies = true);
  Recording(const Recording&) = delete;
  Recording& operator=(const Recording&) = delete;
  // A change that changed no file leaves no snapshot.
  ~Recording();

  // Why the change must not begin now; empty when it may.
  [[nodiscard]] const std::string& refusal() const { return refusal_; }
  // Why the change cannot be taken back; empty when it can, and on a host without snapshots.
  [[nodiscard]] const std::string& not_undoable() const { return not_undoable_; }

 private:
  Snapshots snapshots_;
  std::optional<StateLock> lock_;
  int id_ = 0;
  std::string refusal_, not_undoable_;
};

}  // namespace ormel::changes
