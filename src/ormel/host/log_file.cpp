#include "ormel/host/log_file.h"

#include <cstdio>
#include <string>

#include "ormel/base/log.h"
#include "ormel/host/settings.h"

namespace ormel::system {

namespace {

constexpr const char* PACKAGE_CONF = "/etc/config/pakrix.conf";
constexpr const char* PACKAGE_LOG = "/var/log/ORMEL.log";  // below the package's folder
constexpr size_t MAX_PATH = sizeof __log_file__;

}  // namespace

void set_log_file_wrapper() {
  std::string install;
  if (getcfg_wrapper(PACKAGE_CONF, "ORMEL", "Install_Path", "", install) != 0) return;
  if (install.empty()) return;  // a key without a value tells no more than no key
  const std::string path = install + PACKAGE_LOG;
  if (path.size() >= MAX_PATH) {
    ORMEL_LOG(ERROR, "Log path too long, falling back to default");
    return;
  }
  std::snprintf(__log_file__, MAX_PATH, "%s", path.c_str());
}

}  // namespace ormel::system
