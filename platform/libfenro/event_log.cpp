// The C face of the event log.
#include <charconv>
#include <cstring>

#include <fenro/event_log.h>

#include "libfenro/event_store.h"

namespace fenro {
namespace {

std::string_view text_of(const char* text) {
  return text ? text : "";
}

template <std::size_t Size>
std::string text_of(const char (&field)[Size]) {
  return {field, strnlen(field, Size)};
}

// The time of an event; none given means now.
std::time_t time_of(tm parts) {
  if (parts.tm_mday == 0) return std::time(nullptr);  // no day of any month
  parts.tm_isdst = -1;
  return std::mktime(&parts);
}

// The type as text; empty means all. False for what is no number.
bool type_of(std::string_view text, int& type) {
  if (text.empty()) return true;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), type);
  return error == std::errc{} && end == text.data() + text.size();
}

EventFilter filter_of(const char* from, const char* to, const char* application,
                      const char* category) {
  EventFilter filter;
  filter.from = text_of(from);
  filter.to = text_of(to);
  filter.application = text_of(application);
  filter.category = text_of(category);
  return filter;
}

EventFilter filter_of(const char* from, const char* to, const char* user, const char* ip,
                      const char* computer, const char* description, const char* application,
                      const char* category) {
  EventFilter filter = filter_of(from, to, application, category);
  filter.user = text_of(user);
  filter.ip = text_of(ip);
  filter.computer = text_of(computer);
  filter.description = text_of(description);
  return filter;
}

EventFilter filter_of_message(const char* message_id, const char* from, const char* to,
                              const char* application, const char* category) {
  EventFilter filter = filter_of(from, to, application, category);
  filter.message_id = text_of(message_id);
  return filter;
}

}  // namespace
}  // namespace fenro

using fenro::EventFilter;
using fenro::EventOrder;
using fenro::EventStore;

int naslog_event_add(const naslog_event* event) {
  if (!event) return -1;
  fenro::Event entry;
  entry.type = event->type;
  entry.time = fenro::time_of(event->event_datetime);
  entry.user = fenro::text_of(event->event_user);
  entry.ip = fenro::text_of(event->event_ip);
  entry.computer = fenro::text_of(event->event_comp);
  entry.description = fenro::text_of(event->event_desc);
  return EventStore{}.add(entry) ? 0 : -1;
}

int naslog_event_query_count_ex(int type, const char* from, const char* to, const char* user,
                                const char* ip, const char* computer, const char* description,
                                const char* application, const char* category) {
  EventFilter filter =
      fenro::filter_of(from, to, user, ip, computer, description, application, category);
  if (type > 0) filter.type = type;
  return EventStore{}.count(filter);
}

int naslog_event_query_ex(naslog_row row, int sort, int lower, int upper, const char* type,
                          const char* from, const char* to, const char* user, const char* ip,
                          const char* computer, const char* description, void* context,
                          const char* application, const char* category) {
  EventFilter filter =
      fenro::filter_of(from, to, user, ip, computer, description, application, category);
  if (!row || !fenro::type_of(fenro::text_of(type), filter.type)) return -1;
  const EventOrder order = sort == 1 ? EventOrder::OldestFirst : EventOrder::NewestFirst;
  return EventStore{}.query(filter, order, lower, upper, row, context) ? 0 : -1;
}

int naslog_event_query_count_ex2(const char* message_id, const char* start_time,
                                 const char* end_time, const char* application,
                                 const char* category) {
  return EventStore{}.count(
      fenro::filter_of_message(message_id, start_time, end_time, application, category));
}

int naslog_event_query_ex2(naslog_row row, int lower, int upper, const char* message_id,
                           const char* start_time, const char* end_time, const char* application,
                           const char* category, void* context) {
  if (!row) return -1;
  const EventFilter filter =
      fenro::filter_of_message(message_id, start_time, end_time, application, category);
  return EventStore{}.query(filter, EventOrder::NewestFirst, lower, upper, row, context) ? 0 : -1;
}
