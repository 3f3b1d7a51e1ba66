#include "ormel/web/hold.h"

#include <unistd.h>

#include <fenro/auth.h>

#include "ormel/base/text.h"
#include "ormel/host/process.h"

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
  _session session{};
  if (!request.filled("sid") || auth_get_session(request.value("sid"), 1, &session) != 0)
    return "root";
  return field_text(session.user);
}

}  // namespace ormel::cgi::hold
