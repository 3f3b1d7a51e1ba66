#include "ormel/base/http.h"

#include <algorithm>
#include <charconv>
#include <climits>
#include <string_view>
#include <tuple>
#include <utility>

#include "base/authority.h"
#include "base/http_limit.h"
#include "base/lines.h"
#include "ormel/base/error.h"
#include "ormel/base/library.h"
#include "ormel/base/log.h"

namespace ormel {

namespace curl {

namespace {

constexpr const char* LIBRARY = "libcurl.so.4";

// Whether both come from the same file.
bool same_origin(const void* a, const void* b) {
  Dl_info of_a{};
  Dl_info of_b{};
  return dladdr(a, &of_a) != 0 && dladdr(b, &of_b) != 0 && of_a.dli_fbase == of_b.dli_fbase;
}

// Sharing is optional. A preloaded library may have the easy interface alone, and its handles mean
// nothing to the share functions of another library.
void load_share(Api& api) {
  const auto address = [](auto function) { return reinterpret_cast<const void*>(function); };
  const bool found = find_function(api.share_init, "curl_share_init") &&
                     find_function(api.share_setopt, "curl_share_setopt") &&
                     find_function(api.share_cleanup, "curl_share_cleanup");
  if (!found || !same_origin(address(api.share_init), address(api.easy_init)))
    api.share_init = nullptr;
}

bool load(Api& api) {
  const bool found = load_library(LIBRARY) && find_function(api.global_init, "curl_global_init") &&
                     find_function(api.global_cleanup, "curl_global_cleanup") &&
                     find_function(api.easy_init, "curl_easy_init") &&
                     find_function(api.easy_setopt, "curl_easy_setopt") &&
                     find_function(api.easy_perform, "curl_easy_perform") &&
                     find_function(api.easy_getinfo, "curl_easy_getinfo") &&
                     find_function(api.easy_strerror, "curl_easy_strerror") &&
                     find_function(api.easy_cleanup, "curl_easy_cleanup") &&
                     find_function(api.slist_append, "curl_slist_append") &&
                     find_function(api.slist_free_all, "curl_slist_free_all");
  if (found) load_share(api);
  return found;
}

}  // namespace

const Api* api() {
  static Api functions{};
  static const bool loaded = load(functions);
  return loaded ? &functions : nullptr;
}

// A handle exists only if the library was loaded.
void Cleanup::operator()(CURL* handle) const noexcept {
  api()->easy_cleanup(handle);
}
void Cleanup::operator()(curl_slist* list) const noexcept {
  api()->slist_free_all(list);
}

void ShareCleanup::operator()(CURLSH* handle) const noexcept {
  if (const auto cleanup = api()->share_cleanup) cleanup(handle);  // there with each share
}

}  // namespace curl

Curl new_curl() {
  const curl::Api* library = curl::api();
  return Curl{library ? library->easy_init() : nullptr};
}

bool add_header(CurlList& headers, const std::string& line) {
  const curl::Api* library = curl::api();
  if (!library || !fenro::one_line(line)) return false;
  curl_slist* const longer = library->slist_append(headers.get(), line.c_str());
  if (!longer) return false;
  std::ignore = headers.release();  // it is the head of the longer list
  headers.reset(longer);
  return true;
}

namespace system {

namespace {

constexpr long HTTP_TIMEOUT = 10;  // seconds

// Two digits, in either case.
bool parse_hex_byte(std::string_view digits, unsigned char& byte) {
  constexpr int HEX = 16;
  const char* const end = digits.data() + digits.size();
  return digits.size() == 2 && std::from_chars(digits.data(), end, byte, HEX).ptr == end;
}

}  // namespace

size_t curl_memory_data(void* bytes, size_t size, size_t count, void* out) {
  std::string& text = *static_cast<std::string*>(out);
  const size_t length = size * count;
  if (length > fenro::HTTP_ANSWER_MAX - std::min(text.size(), fenro::HTTP_ANSWER_MAX)) {
    ORMEL_LOG(ERROR, "[easycurl] the answer is larger than %zu bytes and is dropped",
              fenro::HTTP_ANSWER_MAX);
    text.clear();  // a part of it is useless, and does not belong in the log
    return 0;
  }
  text.append(static_cast<const char*>(bytes), length);
  return length;
}

int easycurl(Curl handle, std::string& out) {
  if (!handle) return ERR_EASYCURL_FAIL;
  const curl::Api& library = *curl::api();
  library.easy_setopt(handle.get(), CURLOPT_WRITEFUNCTION, curl_memory_data);
  library.easy_setopt(handle.get(), CURLOPT_WRITEDATA, &out);
  library.easy_setopt(handle.get(), CURLOPT_TIMEOUT, HTTP_TIMEOUT);
  static bool needs_bundle = false;  // once in this run
  const CURLcode rc =
      fenro::perform_with_authority(library, handle.get(), HTTP_TIMEOUT, needs_bundle);
  if (rc != CURLE_OK) {
    ORMEL_LOG(ERROR, "[easycurl] curl_easy_perform failed with error code: %d, %s, %s\n",
              static_cast<int>(rc), library.easy_strerror(rc), out.c_str());
    return static_cast<int>(rc);
  }
  long status = 0;
  library.easy_getinfo(handle.get(), CURLINFO_RESPONSE_CODE, &status);
  if (status >= 200 && status <= 299) return NO_ERROR;
  ORMEL_LOG(ERROR, "[easycurl] HTTP request failed with status code: %ld, response: %s\n", status,
            out.c_str());
  return ERR_HTTP_ERROR;
}

// Not by libcurl's own function, although it does the same: to load that library costs more than
// the rest of a run.
int decode_urlEncoded(const std::string& text, std::string& out) {
  if (text.size() > INT_MAX) return ERR_CURL_FAIL;
  std::string plain;
  plain.reserve(text.size());
  for (size_t at = 0; at < text.size(); ++at) {
    unsigned char byte = 0;
    const bool coded =
        text[at] == '%' && parse_hex_byte(std::string_view(text).substr(at + 1, 2), byte);
    plain += coded ? static_cast<char>(byte) : text[at];
    if (coded) at += 2;
  }
  out = std::move(plain);
  return NO_ERROR;
}

}  // namespace system
}  // namespace ormel
