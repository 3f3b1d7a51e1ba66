#include "ormel/host/settings.h"

#include <algorithm>

#include "ormel/base/error.h"
#include "ormel/host/process.h"

namespace ormel::system {

namespace {

constexpr const char* GETCFG = "/sbin/getcfg";
constexpr const char* SETCFG = "/sbin/setcfg";

}  // namespace

int getcfg_wrapper(const std::string& file, const std::string& section, const std::string& key,
                   const std::string& fallback, std::string& out) {
  // A tool that fails although there is a default has nothing better to say than that default.
  if (do_exec_safe({GETCFG, section, key, "-f", file, "-d", fallback}, out) != 0 &&
      fallback.empty()) {
    return ERR_CMD_FAILED;
  }
  out.erase(std::remove(out.begin(), out.end(), '\n'), out.end());
  if (out.empty()) out = fallback;
  return NO_ERROR;
}

int setcfg_wrapper(const std::string& file, const std::string& section, const std::string& key,
                   const std::string& value) {
  std::string output;
  return do_exec_safe({SETCFG, section, key, value, "-f", file}, output) == 0 ? NO_ERROR
                                                                              : ERR_CMD_FAILED;
}

}  // namespace ormel::system
