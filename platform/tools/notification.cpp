#include "tools/notification.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>

namespace fenro {
namespace {

constexpr std::string_view COMMAND = "send";
constexpr std::size_t MAX_DESCRIPTION = sizeof(naslog_event::event_desc) - 1;

struct Level {
  std::string_view name;
  int type;
};
constexpr std::array<Level, 3> LEVELS{{{"info", 0}, {"warn", 1}, {"error", 2}}};

struct Option {
  std::string_view name;
  bool (*apply)(Event& event, const std::string& value);
};
constexpr std::array<Option, 5> OPTIONS{{
    {"-A", [](Event& event, const std::string& value) { return event.application = value, true; }},
    {"-C", [](Event& event, const std::string& value) { return event.category = value, true; }},
    {"-M", [](Event& event, const std::string& value) { return event.message_id = value, true; }},
    {"-l",
     [](Event& event, const std::string& value) {
       const auto* const level = std::find_if(LEVELS.begin(), LEVELS.end(),
                                              [&](const Level& row) { return row.name == value; });
       if (level != LEVELS.end()) event.type = level->type;
       return level != LEVELS.end();
     }},
    // The channels of the message; only the log exists here.
    {"-t",
     [](Event&, const std::string& value) {
       return value.find_first_not_of("0123456789") == std::string::npos;
     }},
}};

const Option* find_option(std::string_view name) {
  const auto* const row =
      std::find_if(OPTIONS.begin(), OPTIONS.end(), [&](const Option& o) { return o.name == name; });
  return row == OPTIONS.end() ? nullptr : row;
}

// Truncates to the size of an event's field, never within a UTF-8 character.
std::string cut(std::string text) {
  if (text.size() <= MAX_DESCRIPTION) return text;
  std::size_t end = MAX_DESCRIPTION;
  while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xc0) == 0x80) --end;
  text.resize(end);
  return text;
}

}  // namespace

std::string fill_marks(std::string_view message, const std::vector<std::string>& arguments) {
  std::string out;
  while (!message.empty()) {
    const std::size_t open = std::min(message.find('{'), message.size());
    out.append(message.substr(0, open));
    message.remove_prefix(open);
    if (message.empty()) break;
    std::size_t number = 0;
    const char* const stop = message.data() + message.size();
    const auto [end, error] = std::from_chars(message.data() + 1, stop, number);
    const bool mark =
        error == std::errc{} && end != stop && *end == '}' && number < arguments.size();
    const std::size_t length = mark ? static_cast<std::size_t>(end - message.data()) + 1 : 1;
    out.append(mark ? std::string_view{arguments[number]} : message.substr(0, length));
    message.remove_prefix(length);
  }
  return out;
}

std::optional<Event> parse_notification(const std::vector<std::string>& words) {
  if (words.empty() || words[0] != COMMAND) return {};
  Event event;
  // A notification comes from the appliance itself.
  event.user = "System";
  event.ip = "127.0.0.1";
  event.computer = "localhost";

  std::size_t i = 1;
  for (; i + 1 < words.size(); i += 2) {
    const Option* const option = find_option(words[i]);
    if (!option) break;
    if (!option->apply(event, words[i + 1])) return {};
  }
  if (i >= words.size() || find_option(words[i])) return {};
  event.description =
      cut(fill_marks(words[i], {words.begin() + static_cast<std::ptrdiff_t>(i) + 1, words.end()}));
  return event;
}

}  // namespace fenro
