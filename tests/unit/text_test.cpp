// Texts that come encoded.
#include <memory>
#include <string>
#include <vector>

#include <curl/curl.h>
#include <gtest/gtest.h>

#include "ormel/base/error.h"
#include "ormel/base/http.h"
#include "ormel/base/library.h"

namespace ormel {
namespace {

std::string decoded(const std::string& text) {
  std::string out = "left over";
  EXPECT_EQ(system::decode_urlEncoded(text, out), NO_ERROR);
  return out;
}

// What libcurl makes of the same text.
std::string libcurl_decoded(const std::string& text) {
  decltype(&::curl_easy_unescape) unescape = nullptr;
  decltype(&::curl_free) release = nullptr;
  if (!load_library("libcurl.so.4") || !find_function(unescape, "curl_easy_unescape") ||
      !find_function(release, "curl_free"))
    return "no libcurl";
  int length = 0;
  const std::unique_ptr<char, decltype(&::curl_free)> plain{
      unescape(nullptr, text.c_str(), static_cast<int>(text.size()), &length), release};
  return {plain.get(), static_cast<size_t>(length)};
}

TEST(UrlDecoding, IsThatOfLibcurl) {
  std::vector<std::string> texts{
      "",     "office", "of%20fice", "a+b",  "%",   "%%",  "%4",    "%%41",           "%4%41",
      "%41%", "%0",     "x%00y",     "% 41", "%-1", "%+1", "%0x41", "\xc3\xa9%C3%a9", std::string("a\0%41", 5)};
  for (int first = 0; first < 256; ++first)
    for (int second = 0; second < 256; ++second)
      texts.push_back({'<', '%', static_cast<char>(first), static_cast<char>(second), '>'});
  for (const std::string& text : texts) ASSERT_EQ(decoded(text), libcurl_decoded(text)) << testing::PrintToString(text);
}

}  // namespace
}  // namespace ormel
