// What the audit trail gets of a command.
#pragma once

#include "ormel/actions/audit.h"
#include "ormelctl/command.h"

namespace ormelctl {

// Whether a command with these arguments changes something: some only report without an option.
[[nodiscard]] bool is_change(const Command& command, const Arguments& arguments);

// The recorder of a command that is about to run; it records nothing for one that only reads. The
// routes and actions that the command uses in this process have no rows of their own.
[[nodiscard]] ormel::audit::Recorder recorder_of(const Command& command,
                                                 const Arguments& arguments);

}  // namespace ormelctl
