// Settings that cannot be saved, reported once in each outage: most callers continue after a failed
// save.
#pragma once

#include <string>

namespace fenro {

// Records how a save of `path` ended and returns `saved`; errno is the reason of a failure. The
// first failure of an outage is an event, a line in the host's log and a lasting mark
// (paths::SETTINGS_FAULT: the path, and the reason on the next line). The first successful save of
// that file removes the mark.
bool note_save(const std::string& path, bool saved);

// Stores an event about it. The shared library sets it to the event log's own function.
extern void (*report_settings_event)(bool error, const std::string& text);

}  // namespace fenro
