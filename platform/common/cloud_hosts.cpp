#include "common/cloud_hosts.h"

#include <algorithm>
#include <cctype>
#include <string_view>

#include "base/pelmar_files.h"
#include "libfenro/ini_file.h"

#ifndef ORMEL_CLOUD_DOMAIN
#error "the build names the cloud's domain"
#endif

namespace fenro {

namespace {

constexpr const char* PACKAGES = "/etc/config/pakrix.conf";
constexpr const char* SITE_FILE = "/data/user.conf";  // below the folder of the developer switch application
constexpr std::string_view PRODUCTION = "production";
constexpr std::string_view GLOBAL_REGION = "glb";
constexpr std::string_view TEST_SITE = "sy";  // one host of the development cluster
constexpr const char* TEST_BASE = "https://pelmar-api.sy.global." ORMEL_CLOUD_DOMAIN ":31521";

struct Stage {
  std::string_view site;
  const char* stage;
};

constexpr Stage STAGES[] = {{"alpha", "alpha"}, {PRODUCTION, "production"}, {"qa", "qa-nr"}, {"dev", "dev"}};

constexpr const char* HOSTS[] = {"org-center", "account-center", "auth-connector", "pelmar-api"};  // by CloudService

std::string lowered(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
  return text;
}

std::string setting(const std::string& file, const char* section, const char* key, std::string_view fallback) {
  const std::string value = ini::read_value(file.c_str(), section, key).value_or("");
  return lowered(value.empty() ? std::string{fallback} : value);
}

std::string site_of(CloudService service) {
  if (service == CloudService::PELMAR)
    return setting(pelmar::SETTINGS, pelmar::JOIN_SECTION, "pelmar_site", PRODUCTION);
  const std::string folder = ini::read_value(PACKAGES, "Hollex", "Install_Path").value_or("");
  return folder.empty() ? std::string{PRODUCTION} : setting(folder + SITE_FILE, "SITE", "ENV", PRODUCTION);
}

}  // namespace

std::string cloud_base(CloudService service) {
  const std::string site = site_of(service);
  const bool global = setting(pelmar::ACCOUNT, pelmar::ACCOUNT_SECTION, "REGION", GLOBAL_REGION) == GLOBAL_REGION;
  if (site == TEST_SITE && service == CloudService::PELMAR) return global ? TEST_BASE : "";
  const auto* const known =
      std::find_if(std::begin(STAGES), std::end(STAGES), [&](const Stage& stage) { return stage.site == site; });
  const char* const stage = known == std::end(STAGES) ? PRODUCTION.data() : known->stage;
  return std::string{"https://"} + HOSTS[static_cast<std::size_t>(service)] + '.' + stage +
         (global ? ".global." : ".china.") + ORMEL_CLOUD_DOMAIN;
}

}  // namespace fenro
