#include "daemons/keeper/events.h"

#include <algorithm>
#include <ctime>

#include "libfenro/event_store.h"

namespace fenro::keeper {

bool store_event(const Report& report) {
  Event event;
  event.type = static_cast<int>(report.level);
  event.time = std::time(nullptr);
  event.application = "A238";  // the service's own, so that its log shows the event
  event.category = "C002";
  event.message_id = "9002";
  event.description = "[ORMEL Service] " + report.text;
  // A line of the log is one line, whatever the other end of a tunnel has said.
  std::ranges::replace_if(
      event.description, [](unsigned char c) { return c < ' ' || c == 0x7f; }, '?');
  return EventStore{}.add(event);
}

}  // namespace fenro::keeper
