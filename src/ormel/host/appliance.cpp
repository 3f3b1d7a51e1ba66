#include "ormel/host/appliance.h"

#include <cstdio>
#include <string>
#include <sys/stat.h>

#include <fenro/conf.h>

#include "ormel/host/process.h"

namespace ormel {

namespace system {

namespace {

constexpr const char* DEFAULT_CONF = "/etc/default_config/Corlin.conf";
constexpr const char* SYSTEM_CONF = "/etc/config/Corlin.conf";

bool marked(const char* path) {
  struct stat status {};
  return stat(path, &status) == 0 && S_ISREG(status.st_mode);
}

using HostText = char[256];

const char* host_text(HostText& buffer, const char* key, const char* path) {
  Get_Private_Profile_String("System", key, "", buffer, sizeof buffer, path);
  return buffer;
}

}  // namespace

bool is_demo() {
  return marked("/etc/IS_DEMO");
}
bool is_generic() {
  return marked("/etc/IS_GENERIC");
}
bool is_hexan() {
  return marked("/etc/FENRO_ZFS");
}

const char* get_model_name() {
  static HostText buffer;
  return host_text(buffer, "Model", DEFAULT_CONF);
}

const char* get_server_name() {
  static HostText buffer;
  return host_text(buffer, "Server Name", SYSTEM_CONF);
}

const char* get_firmware_version() {
  static HostText buffer;
  return host_text(buffer, "Version", DEFAULT_CONF);
}

const char* get_server_region() {
  static HostText buffer;
  return host_text(buffer, "Region", SYSTEM_CONF);
}

}  // namespace system

namespace openssl {

namespace {

constexpr const char* VERSION_COMMAND = "/usr/bin/openssl version";
constexpr size_t VERSION_LENGTH = 127;  // bytes of its answer that are looked at

}  // namespace

int version_num() {
  std::string output;
  if (system::do_exec(VERSION_COMMAND, output) != 0) return -1;
  unsigned int major = 0;
  unsigned int minor = 0;
  unsigned int patch = 0;
  // Numbers out of range wrap; the comparison with a version that is decades old does not mind.
  const std::string head = output.substr(0, VERSION_LENGTH);
  const int found =
      std::sscanf(head.c_str(), "%*s %u.%u.%u", &major, &minor, &patch);  // NOLINT(cert-err34-c)
  if (found != 3) return -1;
  return static_cast<int>(10000000 * major + 10000 * minor + 1000 * patch);
}

}  // namespace openssl
}  // namespace ormel
