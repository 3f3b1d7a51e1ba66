// The cloud's services: which host a request goes to, and how each request looks.
#pragma once

#include <string>
#include <string_view>

#include "base/cloud_hosts.h"
#include "ormel/base/http.h"

namespace ormel::pelmar {

using fenro::cloud::HostTable;

// The whole address of a path on one of the services.
[[nodiscard]] std::string get_org_center_api_url(const std::string& path);
[[nodiscard]] std::string get_account_center_api_url(const std::string& path);
[[nodiscard]] std::string get_auth_connector_api_url(const std::string& path);
[[nodiscard]] std::string get_pelmar_api_url(const std::string& path);

// The one selector behind the four: the site of the developer switch or of the membership settings
// picks the row, the account's region the table. An unknown site counts as production. A site that
// the China table alone does not have gives a bare path, at which the request fails.
[[nodiscard]] std::string choose_api_url(HostTable global_table, HostTable china_table,
                                         const std::string& path, bool use_hollex_site);

// Switches the check of the server's certificate off where the settings ask for it. Always 0.
int set_insecure_curl(CURL* handle);

// Every request that the membership makes.
enum class CloudOperation {
  LIST_ORGANIZATIONS,
  CREATE_ORGANIZATION,
  TELL_ACCOUNT,
  REGISTER_EDGE,
  LIST_VPN_GROUPS,
  REGISTER_DEVICE,
  TELL_AGENT_CONFIGURATION,
  CHECK_SUBNET,
  UNREGISTER_DEVICE,
};

// What fills the places that a request leaves open.
struct CloudValues {
  std::string skarn_token{};
  std::string pelmar_token{};
  std::string device_id{};
};

// One request, prepared and then sent once.
class CloudCall {
 public:
  CloudCall(CloudOperation operation, const CloudValues& values);

  // False without libcurl.
  explicit operator bool() const { return static_cast<bool>(handle_); }
  [[nodiscard]] const std::string& url() const { return url_; }
  // The result of `system::easycurl`; the answer in `out`, also that of a refusal. `body` is what a
  // POST carries.
  [[nodiscard]] int perform(std::string& out) { return perform("", out); }
  [[nodiscard]] int perform(const std::string& body, std::string& out);

 private:
  CloudOperation operation_;
  std::string url_;
  CurlList headers_;
  Curl handle_;
  bool complete_ = true;  // all headers could be added
};

}  // namespace ormel::pelmar
