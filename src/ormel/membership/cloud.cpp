#include "ormel/membership/cloud.h"

#include <algorithm>
#include <iterator>

#include "ormel/base/error.h"
#include "ormel/base/http.h"
#include "ormel/base/log.h"
#include "ormel/base/text.h"
#include "ormel/membership/settings.h"

namespace ormel::pelmar {

namespace {

enum class Method { GET, POST, DELETE };

constexpr size_t MOST_HEADERS = 3;

struct RequestFacts {
  CloudOperation operation;
  std::string (*url)(const std::string& path);
  Method method;
  const char* path;
  const char* headers[MOST_HEADERS];
};

constexpr const char* ACCEPT_JSON = "accept: application/json";
constexpr const char* SEND_JSON = "Content-Type: application/json";
constexpr const char* BEARER = "Authorization: Bearer {skarn}";
constexpr const char* PLUSER = "Authorization: Pluser {pelmar}";
constexpr const char* PLAIN = "Authorization: {pelmar}";
constexpr const char* SKARN = "skarnToken: {skarn}";

constexpr RequestFacts REQUESTS[] = {
    // clang-format off
    {CloudOperation::LIST_ORGANIZATIONS,       get_org_center_api_url,     Method::GET,    "/v1.2/organization", {ACCEPT_JSON, BEARER}},
    {CloudOperation::CREATE_ORGANIZATION,      get_org_center_api_url,     Method::POST,   "/v1.2/organization", {ACCEPT_JSON, BEARER, SEND_JSON}},
    {CloudOperation::TELL_ACCOUNT,             get_account_center_api_url, Method::GET,    "/v1.1/me", {ACCEPT_JSON, BEARER}},
    {CloudOperation::REGISTER_EDGE,            get_pelmar_api_url,         Method::POST,   "/dalnet/morvi/api/v1/edge", {SKARN, SEND_JSON}},
    {CloudOperation::LIST_VPN_GROUPS,          get_pelmar_api_url,         Method::GET,    "/pelmar/morvi/api/v1/vpn_topology", {ACCEPT_JSON, PLUSER}},
    {CloudOperation::REGISTER_DEVICE,          get_pelmar_api_url,         Method::GET,    "/dalnet/morvi/api/v1/devices/{device}", {ACCEPT_JSON, PLAIN}},
    {CloudOperation::TELL_AGENT_CONFIGURATION, get_pelmar_api_url,         Method::GET,    "/dalnet/morvi/api/v1/devices/{device}/cloudagent_cfg?format=json", {ACCEPT_JSON, PLAIN}},
    {CloudOperation::CHECK_SUBNET,             get_pelmar_api_url,         Method::POST,   "/pelmar/morvi/api/v1/ip_subnet_check", {ACCEPT_JSON, PLUSER, SEND_JSON}},
    {CloudOperation::UNREGISTER_DEVICE,        get_pelmar_api_url,         Method::DELETE, "/dalnet/morvi/api/v1/devices/{device}", {SEND_JSON, PLAIN, SKARN}},
    // clang-format on
};

constexpr bool in_order() {
  for (size_t i = 0; i < std::size(REQUESTS); ++i) {
    if (static_cast<size_t>(REQUESTS[i].operation) != i) return false;
  }
  return true;
}
static_assert(in_order(), "each operation finds its row by its number");

const RequestFacts& facts_of(CloudOperation operation) {
  return REQUESTS[static_cast<size_t>(operation)];
}

struct Place {
  std::string_view mark;
  std::string CloudValues::*value;
};

constexpr Place PLACES[] = {
    {"{skarn}", &CloudValues::skarn_token},
    {"{pelmar}", &CloudValues::pelmar_token},
    {"{device}", &CloudValues::device_id},
};

// `text` with the one place that it may have filled.
std::string filled(std::string text, const CloudValues& values) {
  for (const Place& place : PLACES) {
    const size_t at = text.find(place.mark);
    if (at != std::string::npos) return text.replace(at, place.mark.size(), values.*place.value);
  }
  return text;
}

// Connections that the calls of one run share, null for none: a join asks the same host five times,
// and to read all authorities of the host and to agree on keys costs more than everything else
// about it.
CURLSH* shared_connections() {
  static const CurlShare share = [] {
    const curl::Api& library = *curl::api();  // the caller has a handle of the library
    CurlShare made{library.share_init ? library.share_init() : nullptr};
    if (made) library.share_setopt(made.get(), CURLSHOPT_SHARE, CURL_LOCK_DATA_CONNECT);
    return made;
  }();
  return share.get();
}

}  // namespace

std::string choose_api_url(HostTable global_table, HostTable china_table, const std::string& path,
                           bool use_hollex_site) {
  std::string site = PRODUCTION_SITE;
  std::string region{fenro::cloud::GLOBAL_REGION};
  std::ignore =
      use_hollex_site ? get_hollex_site(site) : get_pelmar_site(site);  // what was read counts
  std::ignore = get_global_or_china(region);
  site = to_lower(site);
  region = to_lower(region);
  if (!global_table.find(site)) {
    ORMEL_LOG(ERROR, "Invalid site: %s", site.c_str());
    site = PRODUCTION_SITE;
  }
  std::string url = fenro::cloud::base_of({global_table, china_table}, region, site) + path;
  ORMEL_LOG(DEBUG, "Request URL: %s", url.c_str());
  return url;
}

namespace {

std::string address_of(const fenro::cloud::Service& service, const std::string& path,
                       bool use_hollex_site) {
  return choose_api_url(service.global, service.china, path, use_hollex_site);
}

}  // namespace

std::string get_org_center_api_url(const std::string& path) {
  return address_of(fenro::cloud::ORGANIZATION_SERVICE, path, true);
}

std::string get_account_center_api_url(const std::string& path) {
  return address_of(fenro::cloud::ACCOUNT_SERVICE, path, true);
}

std::string get_auth_connector_api_url(const std::string& path) {
  return address_of(fenro::cloud::LOGIN_SERVICE, path, true);
}

std::string get_pelmar_api_url(const std::string& path) {
  return address_of(fenro::cloud::PELMAR_SERVICE, path, false);
}

int set_insecure_curl(CURL* handle) {
  if (is_insecure_curl()) {
    curl::api()->easy_setopt(handle, CURLOPT_SSL_VERIFYPEER, 0L);
    curl::api()->easy_setopt(handle, CURLOPT_SSL_VERIFYHOST, 0L);
  }
  return NO_ERROR;
}

CloudCall::CloudCall(CloudOperation operation, const CloudValues& values)
    : operation_(operation),
      url_(facts_of(operation).url(filled(facts_of(operation).path, values))),
      handle_(new_curl()) {
  if (!handle_) return;
  if (set_insecure_curl(handle_.get()) != NO_ERROR) ORMEL_LOG(WARN, "Failed to set insecure curl");
  for (const char* header : facts_of(operation).headers) {
    if (header) complete_ = add_header(headers_, filled(header, values)) && complete_;
  }
}

int CloudCall::perform(const std::string& body, std::string& out) {
  if (!handle_) return ERR_EASYCURL_FAIL;
  if (!complete_) {
    ORMEL_LOG(ERROR, "[easycurl] a header of the request cannot be sent");
    return ERR_EASYCURL_FAIL;
  }
  const auto set = [this](auto option, auto value) {
    curl::api()->easy_setopt(handle_.get(), option, value);
  };
  set(CURLOPT_URL, url_.c_str());
  set(CURLOPT_HTTPHEADER, headers_.get());
  set(CURLOPT_PROTOCOLS_STR,
      "https");  // nothing goes out in clear; redirections are not followed at all
  set(CURLOPT_NOSIGNAL, 1L);
  if (CURLSH* const share = shared_connections()) set(CURLOPT_SHARE, share);
  switch (facts_of(operation_).method) {
    case Method::GET: break;
    case Method::POST:
      set(CURLOPT_POST, 1L);
      set(CURLOPT_POSTFIELDS, body.c_str());
      set(CURLOPT_POSTFIELDSIZE, static_cast<long>(body.size()));
      break;
    case Method::DELETE: set(CURLOPT_CUSTOMREQUEST, "DELETE"); break;
  }
  return system::easycurl(std::move(handle_), out);
}

}  // namespace ormel::pelmar
