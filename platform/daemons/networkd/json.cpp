#include "daemons/networkd/json.h"

#include <algorithm>
#include <cstddef>

namespace fenro::networkd {
namespace {

constexpr std::size_t REQUEST_MAX = 64UL * 1024;  // the largest real one is some 2 KiB

}  // namespace

Json parse_request(std::string_view body) {
  constexpr std::string_view BLANKS{" \t\r\n"};
  if (body.size() > REQUEST_MAX) return nullptr;
  if (body.find_first_not_of(BLANKS) == std::string_view::npos) return Json{json_object()};
  Json value{json_loadb(body.data(), body.size(), 0, nullptr)};
  return json_is_object(value.get()) ? std::move(value) : nullptr;
}

const char* text_or_null(const json_t* object, const char* key) {
  return json_string_value(json_object_get(object, key));
}

Json json_text(std::string_view text) {
  if (json_t* value = json_stringn(text.data(), text.size()); value != nullptr) return Json{value};
  std::string plain{text};
  std::replace_if(
      plain.begin(), plain.end(), [](char c) { return static_cast<unsigned char>(c) >= 0x80; }, '?');
  return Json{json_stringn(plain.data(), plain.size())};
}

std::string compact(const json_t* value) {
  std::string text;
  const auto append = [](const char* bytes, std::size_t length, void* out) {
    static_cast<std::string*>(out)->append(bytes, length);
    return 0;
  };
  if (json_dump_callback(value, append, &text, JSON_COMPACT | JSON_ENCODE_ANY) != 0) text.clear();
  return text;
}

}  // namespace fenro::networkd
