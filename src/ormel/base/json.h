// A JSON tree to be filled and printed: the answer of a web request. It has no parser; parsed
// documents stay json_t values of Jansson, which a JsonValue can hold.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include <jansson.h>

#include "ormel/base/handle.h"

namespace ormel {

// Owns what it holds, children included. Filled by writing: `operator[]` with a key gives a fresh
// value on each call, so each key is assigned once and a nested object is held in a reference while
// it is filled.
class JsonValue {
 public:
  using Array = std::vector<std::unique_ptr<JsonValue>>;

  JsonValue() = default;
  explicit JsonValue(bool from) { *this = from; }
  explicit JsonValue(const char* from) { *this = from; }  // null counts as empty
  explicit JsonValue(double from) { *this = from; }
  explicit JsonValue(json_t* from) { *this = from; }  // takes over the caller's reference
  explicit JsonValue(int32_t from) { *this = from; }
  explicit JsonValue(uint32_t from) { *this = from; }
  explicit JsonValue(int64_t from) { *this = from; }
  explicit JsonValue(uint64_t from) { *this = from; }
  explicit JsonValue(const std::string& from) { *this = from; }
  JsonValue(const JsonValue&) = delete;
  JsonValue& operator=(const JsonValue&) = delete;
  ~JsonValue();

  // Frees the contents and becomes null.
  void destroy();

  JsonValue& operator=(bool from);
  JsonValue& operator=(const char* from);
  JsonValue& operator=(double from);
  // Takes over the caller's reference. A json_t held before is not released: its assigner has
  // kept a reference.
  JsonValue& operator=(json_t* from);
  JsonValue& operator=(int32_t from);
  JsonValue& operator=(uint32_t from);
  JsonValue& operator=(int64_t from);
  JsonValue& operator=(uint64_t from);
  JsonValue& operator=(const std::string& from);

  // Becomes an array or an object without contents, which would otherwise come with the first of
  // them.
  JsonValue& make_array();
  JsonValue& make_object();

  // A new null member under `key`; the value becomes an object if it is not one. A member of that
  // key given out before is no longer printed, but a reference to it stays good for the life of
  // this object.
  JsonValue& operator[](const std::string& key) { return add(key); }
  JsonValue& operator[](const char* key) { return add(key); }
  // The element at `index` of an array, unchecked.
  JsonValue& operator[](size_t index);

  // Adds an element at the end and owns it; the value becomes an array if it is not one.
  void append(std::unique_ptr<JsonValue> item);

  template <typename T>
  JsonValue& operator<<(const T& from) {
    append(std::make_unique<JsonValue>(from));
    return *this;
  }

  // Empties an array or object and keeps its type; any other value stays as it is.
  void erase();
  void erase(size_t index);
  void erase(const std::string& key);

  // Replaces the contents by their printed text, which takes a fraction of the memory. Call it for
  // a row of a long list once the row is complete. A value whose text differs between `print` and
  // `toString` stays as it is.
  void settle();

  // Writes the value as JSON text without white space.
  void print(std::FILE* stream) const;
  // The same, appended to `out`.
  void print(std::string& out) const;
  // Appends the value's text to `out`. Differs from `print` in two ways that clients rely on:
  // doubles have six significant digits, and a held json_t is printed in double quotes with its
  // own quotes unescaped.
  void toString(std::string& out) const;

  [[nodiscard]] bool is_null() const { return std::holds_alternative<std::monostate>(value_); }

 private:
  struct Object;
  struct Settled {
    std::string text;
  };
  struct FreeObject {
    void operator()(Object* object) const;
  };
  using ObjectHandle = std::unique_ptr<Object, FreeObject>;

  JsonValue& add(std::string_view key);
  Object& hold_object();
  // The contents as a T: those that are there, or an empty T in place of any other kind.
  template <typename T>
  T& hold();
  template <typename Style>
  void write(std::string& out, Style& style) const;

  std::variant<std::monostate, bool, int32_t, uint32_t, int64_t, uint64_t, double, std::string,
               Json, Array, ObjectHandle, Settled>
      value_;  // null, unless it holds something else
};

// `text` as the inside of a JSON string: quotes, backslashes and control bytes escaped, all else
// unchanged.
[[nodiscard]] std::string escape_json(const std::string& text);

}  // namespace ormel
