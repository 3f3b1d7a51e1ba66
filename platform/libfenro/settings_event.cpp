// Failed saves as events, for those who are linked with the event log.
#include <ctime>
#include <tuple>

#include "libfenro/event_store.h"
#include "libfenro/settings_fault.h"

namespace fenro {
namespace {

enum Severity { Information = 0, Error = 2 };

void store_event(bool error, const std::string& text) {
  Event event;
  event.type = error ? Error : Information;
  event.time = std::time(nullptr);
  event.description = text;
  std::ignore =
      EventStore{}.add(event);  // on a full disk the line in the host's log and the mark are left
}

[[maybe_unused]] const bool REGISTERED = [] {
  report_settings_event = store_event;
  return true;
}();

}  // namespace
}  // namespace fenro
