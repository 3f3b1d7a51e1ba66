// HTTPS by libcurl, which is loaded with its thirty dependent libraries on first use, as most runs
// never need them; and URL decoding.
#pragma once

#include <memory>
#include <string>

#include <curl/curl.h>

namespace ormel::curl {

// The functions of libcurl that the program calls.
struct Api {
  decltype(&::curl_global_init) global_init;
  decltype(&::curl_global_cleanup) global_cleanup;
  decltype(&::curl_easy_init) easy_init;
  decltype(&::curl_easy_setopt) easy_setopt;
  decltype(&::curl_easy_perform) easy_perform;
  decltype(&::curl_easy_getinfo) easy_getinfo;
  decltype(&::curl_easy_strerror) easy_strerror;
  decltype(&::curl_easy_cleanup) easy_cleanup;
  decltype(&::curl_slist_append) slist_append;
  decltype(&::curl_slist_free_all) slist_free_all;
  decltype(&::curl_share_init) share_init;  // null where handles cannot share anything
  decltype(&::curl_share_setopt) share_setopt;
  decltype(&::curl_share_cleanup) share_cleanup;
};

// Returns the loaded library, or null when it, or one of the functions, is missing.
[[nodiscard]] const Api* api();

struct Cleanup {
  void operator()(CURL* handle) const noexcept;
  void operator()(curl_slist* list) const noexcept;
};

struct ShareCleanup {
  void operator()(CURLSH* handle) const noexcept;
};

}  // namespace ormel::curl

namespace ormel {

using Curl = std::unique_ptr<CURL, curl::Cleanup>;
using CurlList = std::unique_ptr<curl_slist, curl::Cleanup>;
using CurlShare = std::unique_ptr<CURLSH, curl::ShareCleanup>;

// Returns a new handle, or an empty one when libcurl is missing.
[[nodiscard]] Curl new_curl();

// Adds a header line to a request. Returns false for one with a line break, which would add further
// headers, and when memory is short.
[[nodiscard]] bool add_header(CurlList& headers, const std::string& line);

namespace system {

// Performs the request that `handle` is set up for, within ten seconds, and appends the answer to
// `out`. Returns 0, ERR_EASYCURL_FAIL for an empty handle, ERR_HTTP_ERROR for a status outside 200
// to 299, or libcurl's own code: that of a failed write, with `out` empty, for an answer of more
// than 4 MiB.
[[nodiscard]] int easycurl(Curl handle, std::string& out);

// Write callback of libcurl: appends to the std::string that `out` points to, up to the limit.
size_t curl_memory_data(void* bytes, size_t size, size_t count, void* out);

// Replaces "%" and two hexadecimal digits by the byte that they stand for; any other "%", and "+",
// stay. Returns 0, or ERR_CURL_FAIL for a text that is too long for libcurl.
[[nodiscard]] int decode_urlEncoded(const std::string& text, std::string& out);

}  // namespace system
}  // namespace ormel
