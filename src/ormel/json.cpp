#include "ormel/json.h"

#include <cinttypes>
#include <cstdarg>

#include "ormel/handle.h"

namespace ormel {

namespace {

constexpr size_t JSON_FLAGS = JSON_COMPACT | JSON_ENSURE_ASCII | JSON_ENCODE_ANY | JSON_REAL_PRECISION(6);
static_assert(JSON_FLAGS == 12896);

[[gnu::format(printf, 1, 2)]] std::string text_of(const char* format, ...) {
  char buffer[512];  // the longest is the largest double with six decimals
  va_list arguments;
  va_start(arguments, format);
  const int length = std::vsnprintf(buffer, sizeof buffer, format, arguments);
  va_end(arguments);
  return {buffer, static_cast<size_t>(length)};
}

std::string quoted(const std::string& text) {
  std::string out = "\"";
  out += escape_json(text);
  return out += '"';
}

// Where `print` writes to.
struct StreamOut {
  std::FILE* stream;

  void text(const std::string& text) { std::fwrite(text.data(), 1, text.size(), stream); }
  void number(double number) { text(text_of("%f", number)); }
  void document(json_t* document) { json_dumpf(document, stream, JSON_FLAGS); }
};

// Where `toString` writes to.
struct StringOut {
  std::string& out;

  void text(const std::string& text) { out += text; }
  void number(double number) { out += text_of("%g", number); }
  void document(json_t* document) {
    const CString dump{json_dumps(document, JSON_FLAGS)};
    out += '"';
    if (dump) out += dump.get();
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

template <typename Out>
void JsonValue::write(Out& out) const {
  switch (type) {
    case NULL_TYPE: out.text("null"); break;
    case INT32_TYPE: out.text(text_of("%" PRId32, as<int32_t>())); break;
    case UINT32_TYPE: out.text(text_of("%" PRIu32, as<uint32_t>())); break;
    case INT64_TYPE: out.text(text_of("%" PRId64, as<int64_t>())); break;
    case UINT64_TYPE: out.text(text_of("%" PRIu64, as<uint64_t>())); break;
    case DOUBLE_TYPE: out.number(as<double>()); break;
    case STRING_TYPE: out.text(quoted(as<std::string>())); break;
    case JSON_T_TYPE: out.document(static_cast<json_t*>(value.get())); break;
    case BOOLEAN_TYPE: out.text(as<bool>() ? "true" : "false"); break;
    case ARRAY_TYPE: {
      const char* separator = "[";
      for (const auto& item : as<Array>()) {
        out.text(std::exchange(separator, ","));
        item->write(out);
      }
      out.text(as<Array>().empty() ? "[]" : "]");
      break;
    }
    case OBJECT_TYPE: {
      const char* separator = "{";
      for (const auto& [key, member] : as<Object>().members) {
        out.text(std::exchange(separator, ","));
        out.text(quoted(key) += ':');
        member->write(out);
      }
      out.text(as<Object>().members.empty() ? "{}" : "}");
      break;
    }
  }
}

void JsonValue::print(std::FILE* stream) const {
  StreamOut out{stream};
  write(out);
}

void JsonValue::toString(std::string& text) const {
  StringOut out{text};
  write(out);
}

std::string escape_json(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  for (const char byte : text) {
    switch (byte) {
      case '\b': out += "\\b"; break;
      case '\t': out += "\\t"; break;
      case '\n': out += "\\n"; break;
      case '\f': out += "\\f"; break;
      case '\r': out += "\\r"; break;
      case '"': out += "\\\""; break;
      case '\\': out += "\\\\"; break;
      default:
        if (static_cast<unsigned char>(byte) < 32) {
          out += text_of("\\u%04x", static_cast<unsigned>(byte));
        } else {
          out += byte;
        }
    }
  }
  return out;
}

}  // namespace ormel
