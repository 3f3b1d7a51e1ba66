// What users see: the catalogue of the notification centre, and the system event log.
#pragma once

#include <span>
#include <string>
#include <vector>

namespace ormel {

// One message of the catalogue, known by category and id together.
struct nc_msg_struct {
  const char* category_id;  // "C001" servers, "C002" clients, "C003" automatic actions, "C004" SD-WAN
  const char* message_id;
  const char* level;    // "info", "warn" or "error"
  const char* message;  // "{0}" is the service, "{1}" and on the sender's arguments
};

constexpr const char* NOTICE_APPLICATION = "A238";  // this service in the notification centre

extern const nc_msg_struct __NC_MSG_DB__[];

// The whole catalogue.
[[nodiscard]] std::span<const nc_msg_struct> nc_messages();

// The row of a category and an id, both of which the catalogue has.
[[nodiscard]] const nc_msg_struct& nc_message(const char* category, const char* id);

namespace nclog {

// Sends one message; the arguments are `const char*`, at most 12, closed by a null. Fire and forget.
[[gnu::sentinel]] void notify_send(const nc_msg_struct* msg, ...);

}  // namespace nclog

namespace system {

// Adds one event of a type (0 information, 1 warning) to the system event log; the text is cut at 2048 bytes.
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

}  // namespace system
}  // namespace ormel
