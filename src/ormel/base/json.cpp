#include "ormel/base/json.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <deque>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>

namespace ormel {

namespace {

constexpr size_t JSON_FLAGS =
    JSON_COMPACT | JSON_ENSURE_ASCII | JSON_ENCODE_ANY | JSON_REAL_PRECISION(6);
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

// For each byte the letter after the backslash; zero for a byte that is printed as it is, 'u' for
// one that is printed as its number.
constexpr std::array<char, 256> ESCAPES = [] {
  std::array<char, 256> escapes{};
  for (size_t control = 0; control < ' '; ++control) escapes[control] = 'u';
  escapes['\b'] = 'b';
  escapes['\t'] = 't';
  escapes['\n'] = 'n';
  escapes['\f'] = 'f';
  escapes['\r'] = 'r';
  escapes['"'] = '"';
  escapes['\\'] = '\\';
  return escapes;
}();

char escape_of(char byte) {
  return ESCAPES[static_cast<unsigned char>(byte)];
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

// How `print` writes what `toString` writes in another way.
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

// Most answers are lists of objects with two dozen members each: filling one must cost no search
// and no allocation a member, so the order of keys is left to the printing.
struct JsonValue::Object {
  struct Member {
    explicit Member(std::string_view name) : key(name) {}
    std::string key;
    JsonValue value;
    bool erased = false;
  };

  // A member, and the start of its key as a number that sorts as the key does: most comparisons
  // need no more.
  struct Printed {
    uint64_t start;
    const Member* member;
    bool operator<(const Printed& other) const {
      return start != other.start ? start < other.start : member->key < other.member->key;
    }
    bool operator==(const Printed& other) const {
      return start == other.start && member->key == other.member->key;
    }
  };

  static uint64_t start_of(std::string_view key) {
    uint64_t start = 0;
    for (size_t at = 0; at < sizeof start; ++at)
      start = start << 8 | (at < key.size() ? static_cast<unsigned char>(key[at]) : 0U);
    return start;
  }

  // What is printed, by key: of members of one key the last.
  [[nodiscard]] std::vector<Printed> printed() const {
    std::vector<Printed> all;
    all.reserve(members.size());
    for (auto member = members.rbegin(); member != members.rend(); ++member)
      if (!member->erased) all.push_back({start_of(member->key), &*member});
    std::stable_sort(all.begin(), all.end());
    all.erase(std::unique(all.begin(), all.end()), all.end());
    return all;
  }

  std::deque<Member> members;  // in the order of their making: references to them stay good
};

void JsonValue::FreeObject::operator()(Object* object) const {
  std::default_delete<Object>()(object);
}

JsonValue::~JsonValue() = default;

void JsonValue::destroy() {
  value_.emplace<std::monostate>();
}

template <typename T>
T& JsonValue::hold() {
  if (T* held = std::get_if<T>(&value_)) return *held;
  return value_.emplace<T>();
}

JsonValue& JsonValue::operator=(bool from) {
  hold<bool>() = from;
  return *this;
}
JsonValue& JsonValue::operator=(double from) {
  hold<double>() = from;
  return *this;
}
JsonValue& JsonValue::operator=(int32_t from) {
  hold<int32_t>() = from;
  return *this;
}
JsonValue& JsonValue::operator=(uint32_t from) {
  hold<uint32_t>() = from;
  return *this;
}
JsonValue& JsonValue::operator=(int64_t from) {
  hold<int64_t>() = from;
  return *this;
}
JsonValue& JsonValue::operator=(uint64_t from) {
  hold<uint64_t>() = from;
  return *this;
}
JsonValue& JsonValue::operator=(const std::string& from) {
  hold<std::string>() = from;
  return *this;
}
JsonValue& JsonValue::operator=(const char* from) {
  hold<std::string>() = from ? from : "";
  return *this;
}

JsonValue& JsonValue::operator=(json_t* from) {
  auto& document = hold<Json>();
  std::ignore = document.release();  // a document held before is its assigner's
  document.reset(from);
  return *this;
}

JsonValue& JsonValue::make_array() {
  hold<Array>().clear();
  return *this;
}

JsonValue::Object& JsonValue::hold_object() {
  auto& object = hold<ObjectHandle>();
  if (!object) object = ObjectHandle(std::make_unique<Object>().release());
  return *object;
}

JsonValue& JsonValue::make_object() {
  hold_object().members.clear();
  return *this;
}

JsonValue& JsonValue::add(std::string_view key) {
  return hold_object().members.emplace_back(key).value;
}

JsonValue& JsonValue::operator[](size_t index) {
  return *hold<Array>()[index];
}

void JsonValue::append(std::unique_ptr<JsonValue> item) {
  hold<Array>().push_back(std::move(item));
}

void JsonValue::erase() {
  if (auto* items = std::get_if<Array>(&value_)) {
    items->clear();
  } else if (std::holds_alternative<ObjectHandle>(value_)) {
    hold_object().members.clear();
  }
}

void JsonValue::erase(size_t index) {
  if (auto* items = std::get_if<Array>(&value_))
    items->erase(items->begin() + static_cast<Array::difference_type>(index));
}

void JsonValue::erase(const std::string& key) {
  if (!std::holds_alternative<ObjectHandle>(value_)) return;
  for (auto& member : hold_object().members)
    if (member.key == key) member.erased = true;
}

template <typename Style>
void JsonValue::write(std::string& out) const {
  std::visit(
      [&](const auto& held) {
        using T = std::decay_t<decltype(held)>;
        if constexpr (std::is_same_v<T, std::monostate>) {
          out += "null";
        } else if constexpr (std::is_same_v<T, bool>) {
          out += held ? "true" : "false";
        } else if constexpr (std::is_same_v<T, double>) {
          Style::number(out, held);
        } else if constexpr (std::is_same_v<T, std::string>) {
          append_quoted(out, held);
        } else if constexpr (std::is_same_v<T, Json>) {
          Style::document(out, held.get());
        } else if constexpr (std::is_same_v<T, Array>) {
          char separator = '[';
          for (const auto& item : held) {
            out += std::exchange(separator, ',');
            item->template write<Style>(out);
          }
          out += held.empty() ? "[]" : "]";
        } else if constexpr (std::is_same_v<T, ObjectHandle>) {
          out += '{';
          std::string_view separator = "\"";
          for (const auto& [start, member] : held->printed()) {
            out += std::exchange(separator, ",\"");
            append_escaped(out, member->key);
            out += "\":";
            member->value.template write<Style>(out);
          }
          out += '}';
        } else {
          append_number(out, held);
        }
      },
      value_);
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
