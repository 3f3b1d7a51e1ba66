// The command line of notify, and the event that it describes.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "libfenro/event_store.h"

namespace fenro {

// Replaces "{0}", "{1}"... by the arguments. A mark without an argument stays. Inserted text is
// not searched again.
[[nodiscard]] std::string fill_marks(std::string_view message,
                                     const std::vector<std::string>& arguments);

// Parses the arguments of "notify" into an event without its time. Returns nothing on malformed
// arguments.
[[nodiscard]] std::optional<Event> parse_notification(const std::vector<std::string>& words);

}  // namespace fenro
