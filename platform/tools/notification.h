// The command line of notify, and what it makes of it.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "libfenro/event_store.h"

namespace fenro {

// Fills "{0}", "{1}"... with the arguments; a mark without its argument stays. Filled in text is not searched again.
[[nodiscard]] std::string fill_marks(std::string_view message, const std::vector<std::string>& arguments);

// The event that the words behind "notify" ask for, without its time. Nothing when they make no sense.
[[nodiscard]] std::optional<Event> parse_notification(const std::vector<std::string>& words);

}  // namespace fenro
