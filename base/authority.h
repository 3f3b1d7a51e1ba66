// How a request over HTTPS finds the authority of its server's certificate.
#pragma once

#include <algorithm>

#include <curl/curl.h>

namespace fenro {

// Performs a request. Of the host's folder of authorities one file is read, where the bundle of all
// takes longer than the rest of a request. What is trusted is the same: an authority that is in the
// bundle alone is looked up there, and `needs_bundle` says so, for the next request to begin with
// it. `curl` has the functions of libcurl as members, and `timeout` is that of the request in
// seconds, which both attempts share.
template <typename Library>
[[nodiscard]] CURLcode perform_with_authority(const Library& curl, CURL* handle, long timeout,
                                              bool& needs_bundle) {
  constexpr long MILLISECONDS = 1000;
  if (needs_bundle) return curl.easy_perform(handle);
  curl.easy_setopt(handle, CURLOPT_CAINFO, nullptr);
  const CURLcode rc = curl.easy_perform(handle);
  if (rc != CURLE_PEER_FAILED_VERIFICATION && rc != CURLE_SSL_CACERT_BADFILE) return rc;
  const char* bundle = nullptr;
  curl_off_t spent = 0;  // microseconds
  if (curl.easy_getinfo(handle, CURLINFO_CAINFO, &bundle) != CURLE_OK || !bundle) return rc;
  curl.easy_getinfo(handle, CURLINFO_TOTAL_TIME_T, &spent);
  needs_bundle = true;
  curl.easy_setopt(handle, CURLOPT_CAINFO, bundle);
  const long left = timeout * MILLISECONDS - static_cast<long>(spent / MILLISECONDS);
  curl.easy_setopt(handle, CURLOPT_TIMEOUT_MS, std::max(1L, left));
  return curl.easy_perform(handle);
}

}  // namespace fenro
