// Tries a command that changes something: it runs as it is, but on copies of the settings in a
// mount namespace of this process, with start scripts and bus calls recorded in place of being
// made.
#pragma once

#include "ormelctl/command.h"

namespace ormelctl {

// Whether this process runs a trial, in which nothing comes true by waiting.
[[nodiscard]] bool in_trial();

// The differences of all files, the programs that would run and the sessions that would end. To be
// called once: what follows in this process sees the copies.
[[nodiscard]] Result run_trial(const Command& command, const Arguments& arguments);

}  // namespace ormelctl
