#include "ormel/web/hold.h"

#include <unistd.h>

#include "ormel/host/process.h"
#include "ormel/web/access.h"

namespace ormel::cgi::hold {

namespace {

constexpr const char* TOOL = "/usr/lib/fenro/fenro-hold";
constexpr const char* LIST = "/var/lib/ormel/holds.json";

}  // namespace

int run(std::vector<std::string> words, std::string* output) {
  std::string unused;
  words.insert(words.begin(), TOOL);
  return system::do_exec_safe(words, output ? *output : unused);
}

bool has_list() {
  return access(LIST, F_OK) == 0;
}

Json rows(const char* action) {
  std::string text;
  if (run({action}, &text) != 0) return nullptr;
  return Json{json_loads(text.c_str(), 0, nullptr)};
}

namespace {

// The row of a user or peer; null without one.
const json_t* find(const json_t* rows, std::string_view kind, const std::string& who) {
  size_t at = 0;
  const json_t* row = nullptr;
  json_array_foreach(rows, at, row) {
    const char* const its_kind = json_string_value(json_object_get(row, "kind"));
    const char* const its_who = json_string_value(json_object_get(row, "who"));
    if (its_kind && its_who && kind == its_kind && who == its_who) return row;
  }
  return nullptr;
}

}  // namespace

int64_t until(const json_t* holds, std::string_view kind, const std::string& who) {
  return json_integer_value(json_object_get(find(holds, kind, who), "until"));
}

int64_t limit_of(const json_t* limits, const std::string& key) {
  return json_integer_value(json_object_get(find(limits, "limit", key), "since"));
}

std::string limiter_of(const json_t* limits, const std::string& key) {
  const char* const by = json_string_value(json_object_get(find(limits, "limit", key), "by"));
  return by ? by : "";
}

std::string asker(const Request& request) {
  const std::string user = sender_of(request).user;
  return user.empty() ? "root" : user;
}

}  // namespace ormel::cgi::hold
