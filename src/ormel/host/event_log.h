// The system event log, and the notifications about users' rights.
#pragma once

#include <string>
#include <vector>

namespace ormel::system {

// Adds one event of a type (0 information, 1 warning) to the system event log; the text is cut at
// 2048 bytes.
void add_log(const std::string& text, int type);
// "[ORMEL Service] <a> <b> is <c>."
void add_up_event_log(const char* a, const char* b, const char* c);
void add_down_event_log(const char* a, const char* b, const char* c);
// "[ORMEL Service] <a> <b> configuration is applied." and "... is removed."
void add_apply_event_log(const char* a, const char* b);
void add_remove_event_log(const char* a, const char* b);
// One notification for each user whose rights were set or removed.
void set_privilege_event_log(const std::vector<std::string>& users);
void unset_privilege_event_log(const std::vector<std::string>& users);

}  // namespace ormel::system
