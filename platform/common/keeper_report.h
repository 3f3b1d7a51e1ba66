// Passes an event that is in the log on to the keeper, which notifies those who asked for its kind.
#pragma once

#include <string_view>

namespace fenro {

// `kind` is one of the keeper's (daemons/keeper/events.h), `level` 0 information, 1 warning or 2
// error. Waits one second at most; while the keeper does not answer, the event is in the log only.
void report_to_keeper(std::string_view kind, int level, std::string_view subject,
                      std::string_view text);

}  // namespace fenro
