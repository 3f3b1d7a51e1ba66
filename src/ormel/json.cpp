#include "ormel/json.h"

#include <charconv>
#include <string_view>
#include <tuple>
#include <utility>

namespace ormel {

namespace {

constexpr size_t JSON_FLAGS = JSON_COMPACT | JSON_ENSURE_ASCII | JSON_ENCODE_ANY | JSON_REAL_PRECISION(6);
static_assert(JSON_FLAGS == 12896);

template <typename Integer>
void append_number(std::string& out, Integer number) {
  char buffer[24];
  out.append(buffer, std::to_chars(std::begin(buffer), std::end(buffer), number).ptr);
}

template <size_t Size>
void append_number(std::string& out, const char (&format)[Size], double number) {
  char buffer[512];  // the longest is the largest double with six decimals
  const int length = std::snprintf(buffer, sizeof buffer, format, number);
  out.append(buffer, static_cast<size_t>(length));
}

// The letter after the backslash; zero for a byte that stands as it is, 'u' for one that its number stands for.
char escape_of(char byte) {
  switch (byte) {
    case '\b': return 'b';
    case '\t': return 't';
    case '\n': return 'n';
    case '\f': return 'f';
    case '\r': return 'r';
    case '"':
    case '\\': return byte;
    default: return static_cast<unsigned char>(byte) < 32 ? 'u' : '\0';
  }
}

void append_escaped(std::string& out, std::string_view text) {
  size_t done = 0;
  for (size_t at = 0; at < text.size(); ++at) {
    const char escape = escape_of(text[at]);
    if (escape == '\0') continue;
    out.append(text, done, at - done);
    done = at + 1;
    out += '\\';
    out += escape;
    if (escape == 'u') {
      const auto byte = static_cast<unsigned char>(text[at]);
      out += {'0', '0', "0123456789abcdef"[byte / 16], "0123456789abcdef"[byte % 16]};
    }
  }
  out.append(text, done);
}

void append_quoted(std::string& out, std::string_view text) {
  out += '"';
  append_escaped(out, text);
  out += '"';
}

int append_piece(const char* piece, size_t size, void* out) {
  static_cast<std::string*>(out)->append(piece, size);
  return 0;
}

// How `print` writes what `toString` writes otherwise.
struct PrintStyle {
  static void number(std::string& out, double number) { append_number(out, "%f", number); }
  static void document(std::string& out, const json_t* document) {
    json_dump_callback(document, append_piece, &out, JSON_FLAGS);
  }
};

struct StringStyle {
  static void number(std::string& out, double number) { append_number(out, "%g", number); }
  static void document(std::string& out, const json_t* document) {
    out += '"';
    json_dump_callback(document, append_piece, &out, JSON_FLAGS);
    out += '"';
  }
};

}  // namespace

void JsonValue::destroy() {
  value.reset();
  type = NULL_TYPE;
}

// The block of a T that `kind` promises; a block of that type which is there already is used again.
template <typename T>
T& JsonValue::hold(TYPE kind) {
  if (type != kind) destroy();
  if (!value) {
    value = {std::make_unique<T>().release(), [](void* block) { std::default_delete<T>()(static_cast<T*>(block)); }};
  }
  type = kind;
  return *static_cast<T*>(value.get());
}

template <typename T>
JsonValue& JsonValue::set(TYPE kind, const T& from) {
  hold<T>(kind) = from;
  return *this;
}

JsonValue& JsonValue::operator=(bool from) {
  return set(BOOLEAN_TYPE, from);
}
JsonValue& JsonValue::operator=(const char* from) {
  return set(STRING_TYPE, std::string(from ? from : ""));
}
JsonValue& JsonValue::operator=(double from) {
  return set(DOUBLE_TYPE, from);
}
JsonValue& JsonValue::operator=(int32_t from) {
  return set(INT32_TYPE, from);
}
JsonValue& JsonValue::operator=(uint32_t from) {
  return set(UINT32_TYPE, from);
}
JsonValue& JsonValue::operator=(int64_t from) {
  return set(INT64_TYPE, from);
}
JsonValue& JsonValue::operator=(uint64_t from) {
  return set(UINT64_TYPE, from);
}
JsonValue& JsonValue::operator=(const std::string& from) {
  return set(STRING_TYPE, from);
}

JsonValue& JsonValue::operator=(json_t* from) {
  if (type != JSON_T_TYPE) destroy();
  std::ignore = value.release();  // a document held before is its assigner's
  value = {from, [](void* document) { json_decref(static_cast<json_t*>(document)); }};
  type = JSON_T_TYPE;
  return *this;
}

JsonValue& JsonValue::make_array() {
  hold<Array>(ARRAY_TYPE).clear();
  return *this;
}

JsonValue& JsonValue::make_object() {
  hold<Object>(OBJECT_TYPE) = Object{};
  return *this;
}

JsonValue& JsonValue::operator[](const std::string& key) {
  auto& object = hold<Object>(OBJECT_TYPE);
  auto& member = object.members[key];
  if (member) object.replaced.push_back(std::move(member));
  member = std::make_unique<JsonValue>();
  return *member;
}

JsonValue& JsonValue::operator[](size_t index) {
  return *hold<Array>(ARRAY_TYPE)[index];
}

void JsonValue::append(std::unique_ptr<JsonValue> item) {
  hold<Array>(ARRAY_TYPE).push_back(std::move(item));
}

void JsonValue::erase() {
  if (type == ARRAY_TYPE) {
    auto& items = hold<Array>(ARRAY_TYPE);
    while (!items.empty()) items.pop_back();
  } else if (type == OBJECT_TYPE) {
    hold<Object>(OBJECT_TYPE) = Object{};
  }
}

void JsonValue::erase(size_t index) {
  if (type != ARRAY_TYPE) return;
  auto& items = hold<Array>(ARRAY_TYPE);
  items.erase(items.begin() + static_cast<Array::difference_type>(index));
}

void JsonValue::erase(const std::string& key) {
  if (type == OBJECT_TYPE) hold<Object>(OBJECT_TYPE).members.erase(key);
}

template <typename Style>
void JsonValue::write(std::string& out) const {
  switch (type) {
    case NULL_TYPE: out += "null"; break;
    case INT32_TYPE: append_number(out, as<int32_t>()); break;
    case UINT32_TYPE: append_number(out, as<uint32_t>()); break;
    case INT64_TYPE: append_number(out, as<int64_t>()); break;
    case UINT64_TYPE: append_number(out, as<uint64_t>()); break;
    case DOUBLE_TYPE: Style::number(out, as<double>()); break;
    case STRING_TYPE: append_quoted(out, as<std::string>()); break;
    case JSON_T_TYPE: Style::document(out, static_cast<json_t*>(value.get())); break;
    case BOOLEAN_TYPE: out += as<bool>() ? "true" : "false"; break;
    case ARRAY_TYPE: {
      char separator = '[';
      for (const auto& item : as<Array>()) {
        out += std::exchange(separator, ',');
        item->write<Style>(out);
      }
      out += as<Array>().empty() ? "[]" : "]";
      break;
    }
    case OBJECT_TYPE: {
      char separator = '{';
      for (const auto& [key, member] : as<Object>().members) {
        out += std::exchange(separator, ',');
        append_quoted(out, key);
        out += ':';
        member->template write<Style>(out);
      }
      out += as<Object>().members.empty() ? "{}" : "}";
      break;
    }
  }
}

void JsonValue::print(std::FILE* stream) const {
  std::string text;
  write<PrintStyle>(text);
  std::fwrite(text.data(), 1, text.size(), stream);
}

void JsonValue::toString(std::string& text) const {
  write<StringStyle>(text);
}

std::string escape_json(const std::string& text) {
  std::string out;
  append_escaped(out, text);
  return out;
}

}  // namespace ormel
