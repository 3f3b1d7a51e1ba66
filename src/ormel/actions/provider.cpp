#include "ormel/actions/provider.h"

#include <utility>

#include "ormel/base/handle.h"
#include "ormel/base/http.h"
#include "ormel/base/log.h"

#ifndef ORMEL_PROVIDER_HOST
#error "the build names the provider's host"
#endif

namespace ormel::provider {

namespace {

constexpr const char* SETTINGS = "https://" ORMEL_PROVIDER_HOST "/settings";
constexpr long GLOBAL_PARTS = 3;      // of libcurl: TLS and the sockets
constexpr long CONNECT_TIMEOUT = 10;  // seconds
constexpr long STALLED_TIMEOUT = 30;  // seconds in which nothing at all has come
constexpr long REDIRECTIONS = 10;     // that are followed
constexpr long HTTP_OK = 200;
constexpr size_t SETTINGS_LIMIT = size_t{16} * 1024 * 1024;

// What a user has no use for.
constexpr const char* DROPPED[] = {"ca", "ip", "rank", "basename", "protocols", "server_type"};

constexpr const char* FIXED_HEADERS[] = {
    "Accept:",  // libcurl's own is not sent
    "User-Agent:",
    "X-GF-Product: VyprVPN",
    "X-GF-Platform: VyprVPN SDK/vantri",
    "X-GF-Product-Version: 0.20161031.11705",
};

// libcurl's global state, for one call.
class GlobalCurl {
 public:
  explicit GlobalCurl(const curl::Api& library) : library_(library) {
    library_.global_init(GLOBAL_PARTS);
  }
  GlobalCurl(const GlobalCurl&) = delete;
  GlobalCurl& operator=(const GlobalCurl&) = delete;
  ~GlobalCurl() { library_.global_cleanup(); }

 private:
  const curl::Api& library_;
};

// Empty for an account that no header can hold.
CurlList make_headers(std::string username, std::string password) {
  CurlList headers;
  bool done = add_header(headers, "username: " + std::move(username)) &&
              add_header(headers, "password: " + std::move(password));
  for (const char* line : FIXED_HEADERS) done = done && add_header(headers, line);
  return done ? std::move(headers) : CurlList{};
}

void set_options(const curl::Api& library, CURL* handle, curl_slist* headers, std::string* body) {
  library.easy_setopt(handle, CURLOPT_URL, SETTINGS);
  library.easy_setopt(handle, CURLOPT_WRITEDATA, body);
  library.easy_setopt(handle, CURLOPT_WRITEFUNCTION, curl_memory_data);
  library.easy_setopt(handle, CURLOPT_HTTPHEADER, headers);
  library.easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
  library.easy_setopt(handle, CURLOPT_NOPROGRESS, 0L);
  library.easy_setopt(handle, CURLOPT_AUTOREFERER, 1L);
  library.easy_setopt(handle, CURLOPT_FORBID_REUSE, 1L);
  library.easy_setopt(handle, CURLOPT_FOLLOWLOCATION, 1L);
  library.easy_setopt(handle, CURLOPT_CONNECTTIMEOUT, CONNECT_TIMEOUT);
  // The password goes along to where a redirection leads: never in clear, and not for ever.
  library.easy_setopt(handle, CURLOPT_REDIR_PROTOCOLS_STR, "https");
  library.easy_setopt(handle, CURLOPT_MAXREDIRS, REDIRECTIONS);
  // A provider that falls silent in the middle must not hold the request for ever.
  library.easy_setopt(handle, CURLOPT_LOW_SPEED_LIMIT, 1L);
  library.easy_setopt(handle, CURLOPT_LOW_SPEED_TIME, STALLED_TIMEOUT);
}

// The HTTP status of the call, 200 only if it ended well.
long fetch_settings(std::string username, std::string password, std::string& body) {
  const curl::Api* const library = curl::api();
  if (!library) return 0;
  const GlobalCurl global{*library};
  const CurlList headers = make_headers(std::move(username), std::move(password));
  const Curl handle = new_curl();
  if (!headers || !handle) return 0;
  set_options(*library, handle.get(), headers.get(), &body);

  const CURLcode rc = library->easy_perform(handle.get());
  long status = 0;
  library->easy_getinfo(handle.get(), CURLINFO_RESPONSE_CODE, &status);
  if (rc == CURLE_OK) return status;
  ORMEL_LOG(ERROR, "curl_easy_perform failed: %s", library->easy_strerror(rc));
  return status == HTTP_OK ? 0 : status;
}

}  // namespace

size_t curl_memory_data(void* data, size_t size, size_t count, void* out) {
  std::string& text = *static_cast<std::string*>(out);
  const size_t length = size * count;
  if (length > SETTINGS_LIMIT - text.size()) return 0;
  text.append(static_cast<const char*>(data), length);
  return length;
}

json_t* reduce_settings(const std::string& settings) {
  const Json root{json_loads(settings.c_str(), 0, nullptr)};
  if (!root) return nullptr;
  json_t* locations = nullptr;
  json_t* ports = nullptr;
  // What is missing stays null, and is shown so.
  std::ignore = json_unpack(root.get(), "{s:{s:O}, s:{s:{s:{s:O}}}}", "vpn", "locations",
                            &locations, "vpn", "protocol_config", "OpenVPN-256", "ports", &ports);
  size_t at = 0;
  json_t* server = nullptr;
  json_array_foreach(locations, at, server) {
    for (const char* member : DROPPED) json_object_del(server, member);
  }
  return json_pack("{s:o?, s:o?}", "servers", locations, "openvpn", ports);
}

json_t* goldenfrog_server_list(std::string username, std::string password) {
  std::string body;
  const long status = fetch_settings(std::move(username), std::move(password), body);
  return status == HTTP_OK ? reduce_settings(body) : json_integer(status);
}

}  // namespace ormel::provider
