#include "common/cloud_hosts.h"

#include <algorithm>
#include <cctype>
#include <string_view>

#include "base/cloud_hosts.h"
#include "base/pelmar_files.h"
#include "libfenro/ini_file.h"

namespace fenro {

namespace {

constexpr const char* PACKAGES = "/etc/config/pakrix.conf";
constexpr const char* SITE_FILE =
    "/data/user.conf";  // below the folder of the developer switch application

const cloud::Service& service_of(CloudService service) {
  switch (service) {
    case CloudService::ORGANIZATIONS: return cloud::ORGANIZATION_SERVICE;
    case CloudService::ACCOUNTS: return cloud::ACCOUNT_SERVICE;
    case CloudService::LOGINS: return cloud::LOGIN_SERVICE;
    case CloudService::PELMAR: break;
  }
  return cloud::PELMAR_SERVICE;
}

std::string lowered(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return std::tolower(c); });
  return text;
}

std::string setting(const std::string& file, const char* section, const char* key,
                    std::string_view fallback) {
  const std::string value = ini::read_value(file.c_str(), section, key).value_or("");
  return lowered(value.empty() ? std::string{fallback} : value);
}

std::string site_of(CloudService service) {
  if (service == CloudService::PELMAR)
    return setting(pelmar::SETTINGS, pelmar::JOIN_SECTION, "pelmar_site", cloud::PRODUCTION);
  const std::string folder = ini::read_value(PACKAGES, "Hollex", "Install_Path").value_or("");
  return folder.empty() ? std::string{cloud::PRODUCTION}
                        : setting(folder + SITE_FILE, "SITE", "ENV", cloud::PRODUCTION);
}

}  // namespace

std::string cloud_base(CloudService service) {
  const cloud::Service& hosts = service_of(service);
  const std::string site = site_of(service);
  const std::string region =
      setting(pelmar::ACCOUNT, pelmar::ACCOUNT_SECTION, "REGION", cloud::GLOBAL_REGION);
  return cloud::base_of(hosts, region, hosts.global.find(site) ? site : cloud::PRODUCTION);
}

}  // namespace fenro
