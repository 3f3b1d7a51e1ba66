#include "ormel/host/sessions.h"

#include <string>
#include <tuple>

#include "ormel/host/process.h"

namespace ormel::system {

namespace {

void kick(const char* action, TYPE type, const char* arg) {
  std::ignore =
      background({COMMON_SCRIPT, action, std::to_string(type), arg ? arg : ""});  // not waited for
}

}  // namespace

void kick_all_connection(TYPE type, const char* arg) {
  kick("kick_all_connection", type, arg);
}

void kick_one_connection(TYPE type, const char* arg) {
  kick("kick_one_connection", type, arg);
}

}  // namespace ormel::system
