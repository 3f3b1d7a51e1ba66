#include "common/json.h"

#include "base/utf8.h"

namespace fenro {
Json parse_request(std::string_view body, std::size_t limit) {
  constexpr std::string_view BLANKS{" \t\r\n"};
  if (body.size() > limit) return nullptr;
  if (body.find_first_not_of(BLANKS) == std::string_view::npos) return Json{json_object()};
  Json value{json_loadb(body.data(), body.size(), 0, nullptr)};
  return json_is_object(value.get()) ? std::move(value) : nullptr;
}

const char* text_or_null(const json_t* object, const char* key) {
  return json_string_value(json_object_get(object, key));
}

Json json_text(std::string_view text) {
  const std::string plain = valid_utf8(text);
  return Json{json_stringn(plain.data(), plain.size())};
}

std::string reply_text(int error, Json data) {
  const Json reply{json_object()};
  json_object_set_new(reply.get(), "error", json_integer(error));
  json_object_set_new(reply.get(), "data", data.release());
  return compact(reply.get());
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

}  // namespace fenro
