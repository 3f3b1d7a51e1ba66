#include "ormel/host/event_log.h"

#include <cstdarg>
#include <cstdio>

#include <fenro/event_log.h>

#include "ormel/host/notification.h"

namespace ormel::system {

namespace {

constexpr size_t MAX_EVENT_TEXT = 2048;  // bytes of an event's description
constexpr size_t EVENT_BUFFER = 1025;    // of the texts that are put together here

enum { EVENT_INFORMATION = 0, EVENT_WARNING = 1 };

[[gnu::format(printf, 2, 3)]] void add_formatted(int type, const char* format, ...) {
  char text[EVENT_BUFFER];
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  add_log(text, type);
}

void notify_users(const nc_msg_struct& message, const std::vector<std::string>& users) {
  for (const std::string& user : users) nclog::notify_send(&message, user.c_str(), nullptr);
}

}  // namespace

void add_log(const std::string& text, int type) {
  naslog_event event{};
  event.type = type;
  text.copy(event.event_desc, MAX_EVENT_TEXT);
  naslog_event_add(&event);
}

void add_up_event_log(const char* a, const char* b, const char* c) {
  add_formatted(EVENT_INFORMATION, "[ORMEL Service] %s %s is %s.", a, b, c);
}

void add_down_event_log(const char* a, const char* b, const char* c) {
  add_up_event_log(a, b, c);
}

void add_apply_event_log(const char* a, const char* b) {
  add_formatted(EVENT_INFORMATION, "[ORMEL Service] %s %s configuration is applied.", a, b);
}

void add_remove_event_log(const char* a, const char* b) {
  add_formatted(EVENT_WARNING, "[ORMEL Service] %s %s configuration is removed.", a, b);
}

void set_privilege_event_log(const std::vector<std::string>& users) {
  notify_users(nc_message("C001", "0004"), users);
}

void unset_privilege_event_log(const std::vector<std::string>& users) {
  notify_users(nc_message("C001", "0005"), users);
}

}  // namespace ormel::system
