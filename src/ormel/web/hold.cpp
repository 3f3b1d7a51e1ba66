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

std::string asker(const Request& request) {
  const std::string user = sender_of(request).user;
  return user.empty() ? "root" : user;
}

}  // namespace ormel::cgi::hold
