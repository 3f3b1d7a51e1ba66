#include "daemons/ormeld/block_policy.h"

#include <cerrno>

#include "base/file.h"
#include "common/json.h"

namespace fenro::ormeld {
namespace {

constexpr std::int64_t NUMBER_MAX = 1'000'000'000;

bool take(const json_t* object, const char* key, bool& out) {
  const json_t* value = json_object_get(object, key);
  if (!value) return true;
  out = json_is_true(value);
  return json_is_boolean(value);
}

bool take(const json_t* object, const char* key, std::int64_t& out) {
  const json_t* value = json_object_get(object, key);
  if (!value) return true;
  out = json_integer_value(value);
  return out > 0 && out <= NUMBER_MAX;  // 0 is what any other type reads as
}

}  // namespace

bool read_policy(const std::string& path, BlockPolicy& out) {
  std::string text;
  const int failure = read_file(path.c_str(), text);
  if (failure == ENOENT) return true;
  if (failure != 0) return false;
  const Json document{json_loadb(text.data(), text.size(), 0, nullptr)};
  const json_t* global = json_object_get(document.get(), "global");
  if (!json_is_object(document.get()) || (global && !json_is_object(global))) return false;
  return take(global, "enable", out.enable) && take(global, "limit", out.limit) &&
         take(global, "time", out.time);
}

}  // namespace fenro::ormeld
