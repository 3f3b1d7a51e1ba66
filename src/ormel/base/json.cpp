#include "ormel/base/json.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <deque>
#include <numeric>
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
  for (;;) {
    const auto stop = std::find_if(text.begin(), text.end(), escape_of);
    out.append(text.data(), static_cast<size_t>(stop - text.begin()));
    if (stop == text.end()) return;
    const char escape = escape_of(*stop);
    out += {'\\', escape};
    if (escape == 'u') {
      const auto byte = static_cast<unsigned char>(*stop);
      out += {'0', '0', "0123456789abcdef"[byte / 16], "0123456789abcdef"[byte % 16]};
    }
    text = {stop + 1, text.end()};
  }
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

// What both write alike.
struct CommonStyle {
  bool complete = true;
  void number(std::string&, double) { complete = false; }
  void document(std::string&, const json_t*) { complete = false; }
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

  // The members that were not erased, in the order of their making.
  [[nodiscard]] std::vector<const Member*> kept() const;

  std::deque<Member> members;  // in the order of their making: references to them stay good
};

std::vector<const JsonValue::Object::Member*> JsonValue::Object::kept() const {
  std::vector<const Member*> all;
  all.reserve(members.size());
  for (const Member& member : members)
    if (!member.erased) all.push_back(&member);
  return all;
}

namespace {

// Which of the members are printed, in which order: by the bytes of their keys, and of one key the
// last.
class PrintOrder {
 public:
  struct Place {
    size_t index;       // of the member
    std::string label;  // its key as it is printed, with the colon
  };

  // The members as they were made.
  template <typename Members>
  explicit PrintOrder(const Members& members) {
    std::vector<uint64_t> starts;
    for (const auto* member : members) {
      keys_.push_back(member->key);
      starts.push_back(start_of(member->key));
    }
    std::vector<size_t> order(keys_.size());
    std::iota(order.rbegin(), order.rend(), size_t{0});  // of one key the last comes first
    std::stable_sort(order.begin(), order.end(), [&](size_t a, size_t b) {
      return starts[a] != starts[b] ? starts[a] < starts[b] : keys_[a] < keys_[b];
    });
    const auto same = [&](size_t a, size_t b) { return keys_[a] == keys_[b]; };
    order.erase(std::unique(order.begin(), order.end(), same), order.end());
    for (const size_t index : order) {
      Place& place = places.emplace_back(Place{index, {}});
      append_quoted(place.label, keys_[index]);
      place.label += ':';
    }
  }

  template <typename Members>
  [[nodiscard]] bool fits(const Members& members) const {
    return std::equal(
        members.begin(), members.end(), keys_.begin(), keys_.end(),
        [](const auto* member, const std::string& key) { return member->key == key; });
  }

  std::vector<Place> places;

 private:
  // The start of a key as a number that sorts as the key does: most comparisons need no more.
  static uint64_t start_of(std::string_view key) {
    uint64_t start = 0;
    for (size_t at = 0; at < sizeof start; ++at)
      start = start << 8 | (at < key.size() ? static_cast<unsigned char>(key[at]) : 0U);
    return start;
  }

  std::vector<std::string> keys_;
};

// Rows of a list have the same keys: the order that was found for one row serves the next.
template <typename Members>
std::shared_ptr<const PrintOrder> order_of(const Members& members) {
  static std::shared_ptr<const PrintOrder> last;
  if (!last || !last->fits(members)) last = std::make_shared<const PrintOrder>(members);
  return last;
}

}  // namespace

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
void JsonValue::write(std::string& out, Style& style) const {
  std::visit(
      [&](const auto& held) {
        using T = std::decay_t<decltype(held)>;
        if constexpr (std::is_same_v<T, std::monostate>) {
          out += "null";
        } else if constexpr (std::is_same_v<T, bool>) {
          out += held ? "true" : "false";
        } else if constexpr (std::is_same_v<T, double>) {
          style.number(out, held);
        } else if constexpr (std::is_same_v<T, std::string>) {
          append_quoted(out, held);
        } else if constexpr (std::is_same_v<T, Json>) {
          style.document(out, held.get());
        } else if constexpr (std::is_same_v<T, Settled>) {
          out += held.text;
        } else if constexpr (std::is_same_v<T, Array>) {
          char separator = '[';
          for (const auto& item : held) {
            out += std::exchange(separator, ',');
            item->write(out, style);
          }
          out += held.empty() ? "[]" : "]";
        } else if constexpr (std::is_same_v<T, ObjectHandle>) {
          const auto members = held->kept();
          const auto order = order_of(members);
          char separator = '{';
          for (const auto& [index, label] : order->places) {
            out += std::exchange(separator, ',');
            out += label;
            members[index]->value.write(out, style);
          }
          out += order->places.empty() ? "{}" : "}";
        } else {
          append_number(out, held);
        }
      },
      value_);
}

void JsonValue::settle() {
  constexpr size_t USUAL_ROW = 512;
  CommonStyle style;
  Settled settled;
  settled.text.reserve(USUAL_ROW);
  write(settled.text, style);
  if (style.complete) value_ = std::move(settled);
}

void JsonValue::print(std::FILE* stream) const {
  std::string text;
  print(text);
  std::fwrite(text.data(), 1, text.size(), stream);
}

void JsonValue::print(std::string& out) const {
  PrintStyle style;
  write(out, style);
}

void JsonValue::toString(std::string& text) const {
  StringStyle style;
  write(text, style);
}

std::string escape_json(const std::string& text) {
  std::string out;
  append_escaped(out, text);
  return out;
}

}  // namespace ormel
