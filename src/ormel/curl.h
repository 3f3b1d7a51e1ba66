// libcurl and its thirty dependent libraries, loaded on first use: most runs never need them.
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
  decltype(&::curl_easy_unescape) easy_unescape;
  decltype(&::curl_free) free;
  decltype(&::curl_slist_append) slist_append;
  decltype(&::curl_slist_free_all) slist_free_all;
  decltype(&::curl_share_init) share_init;  // null where handles cannot share anything
  decltype(&::curl_share_setopt) share_setopt;
  decltype(&::curl_share_cleanup) share_cleanup;
};

// The loaded library; null when it, or one of the functions, is missing.
[[nodiscard]] const Api* api();

struct Cleanup {
  void operator()(CURL* handle) const noexcept;
  void operator()(curl_slist* list) const noexcept;
};

struct ShareCleanup {
  void operator()(CURLSH* handle) const noexcept;
};

// Undoes URL encoding. Whether it could be done.
[[nodiscard]] bool unescape(const std::string& text, std::string& out);

}  // namespace ormel::curl

namespace ormel {

using Curl = std::unique_ptr<CURL, curl::Cleanup>;
using CurlList = std::unique_ptr<curl_slist, curl::Cleanup>;
using CurlShare = std::unique_ptr<CURLSH, curl::ShareCleanup>;

// A new handle, empty when libcurl is missing.
[[nodiscard]] Curl new_curl();

// Adds a line to the head of a request. False for one that holds a line end, which would add more headers than that
// one, and without memory.
[[nodiscard]] bool add_header(CurlList& headers, const std::string& line);

}  // namespace ormel
