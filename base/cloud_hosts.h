// The hosts of the cloud's services. A source that includes this is built with ORMEL_CLOUD_DOMAIN,
// the domain of all of them.
#pragma once

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <string_view>

#ifndef ORMEL_CLOUD_DOMAIN
#error "the build names the cloud's domain"
#endif

namespace fenro::cloud {

inline constexpr const char* PRODUCTION = "production";
inline constexpr std::string_view GLOBAL_REGION = "glb";  // any other is China

// The base of a service in an environment, without a slash at its end.
struct Host {
  std::string_view site;
  const char* base;
};

// The hosts of one service in one cloud.
struct HostTable {
  const Host* rows;
  std::size_t count;

  [[nodiscard]] constexpr const Host* find(std::string_view site) const {
    const Host* const row =
        std::find_if(rows, rows + count, [&](const Host& host) { return host.site == site; });
    return row == rows + count ? nullptr : row;
  }
};

// The environments that every service has; "qa" is served by the stage "qa-nr".
#define ORMEL_CLOUD_STAGES(service, cloud)                                            \
  {"alpha", "https://" service ".alpha." cloud "." ORMEL_CLOUD_DOMAIN},               \
      {"production", "https://" service ".production." cloud "." ORMEL_CLOUD_DOMAIN}, \
      {"qa", "https://" service ".qa-nr." cloud "." ORMEL_CLOUD_DOMAIN}, {            \
    "dev", "https://" service ".dev." cloud "." ORMEL_CLOUD_DOMAIN                    \
  }

inline constexpr Host ORGANIZATIONS[] = {ORMEL_CLOUD_STAGES("org-center", "global")};
inline constexpr Host ORGANIZATIONS_CHINA[] = {ORMEL_CLOUD_STAGES("org-center", "china")};
inline constexpr Host ACCOUNTS[] = {ORMEL_CLOUD_STAGES("account-center", "global")};
inline constexpr Host ACCOUNTS_CHINA[] = {ORMEL_CLOUD_STAGES("account-center", "china")};
inline constexpr Host LOGINS[] = {ORMEL_CLOUD_STAGES("auth-connector", "global")};
inline constexpr Host LOGINS_CHINA[] = {ORMEL_CLOUD_STAGES("auth-connector", "china")};
inline constexpr Host PELMAR[] = {
    ORMEL_CLOUD_STAGES("pelmar-api", "global"),
    {"sy", "https://pelmar-api.sy.global." ORMEL_CLOUD_DOMAIN
           ":31521"},  // one host of the development cluster
};
inline constexpr Host PELMAR_CHINA[] = {ORMEL_CLOUD_STAGES("pelmar-api", "china")};

#undef ORMEL_CLOUD_STAGES

template <std::size_t Count>
constexpr HostTable table(const Host (&rows)[Count]) {
  return {rows, Count};
}

// A service in both clouds.
struct Service {
  HostTable global;
  HostTable china;
};

inline constexpr Service ORGANIZATION_SERVICE{table(ORGANIZATIONS), table(ORGANIZATIONS_CHINA)};
inline constexpr Service ACCOUNT_SERVICE{table(ACCOUNTS), table(ACCOUNTS_CHINA)};
inline constexpr Service LOGIN_SERVICE{table(LOGINS), table(LOGINS_CHINA)};
inline constexpr Service PELMAR_SERVICE{table(PELMAR), table(PELMAR_CHINA)};

// Returns the base of a service, "" for an environment that the region does not have. One that no
// region has must have become PRODUCTION before.
[[nodiscard]] constexpr const char* base_of(const Service& service, std::string_view region,
                                            std::string_view site) {
  const Host* const host = (region == GLOBAL_REGION ? service.global : service.china).find(site);
  return host ? host->base : "";
}

}  // namespace fenro::cloud
