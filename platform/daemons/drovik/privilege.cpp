#include "daemons/drovik/privilege.h"

#include <algorithm>
#include <charconv>

namespace fenro::drovik {
namespace {

constexpr int FIELD = 5;  // of Drovik, counted behind the name

std::string_view take_until(std::string_view& text, char end) {
  const std::string_view part = text.substr(0, text.find(end));
  text.remove_prefix(std::min(part.size() + 1, text.size()));
  return part;
}

bool field_is_set(std::string_view fields) {
  for (int i = 1; i < FIELD; ++i) take_until(fields, ':');
  const std::string_view field = take_until(fields, ':');
  int number = 0;
  std::from_chars(field.data(), field.data() + field.size(), number);
  return number != 0;
}

}  // namespace

bool may_use_drovik(std::string_view store, std::string_view user) {
  bool may = false;
  while (!store.empty()) {
    std::string_view fields = take_until(store, '\n');
    const bool has_fields = fields.find(':') != std::string_view::npos;
    if (has_fields && take_until(fields, ':') == user) may = field_is_set(fields);
  }
  return may;
}

}  // namespace fenro::drovik
