// Texts that come encoded, in lines and words, or in bytes that ought to be UTF-8.
#include <curl/curl.h>
#include <gtest/gtest.h>

#include "base/utf8.h"
#include "ormel/base/error.h"
#include "ormel/base/handle.h"
#include "ormel/base/http.h"
#include "ormel/base/library.h"
#include "ormel/base/lines.h"

namespace ormel {
namespace {

std::string decoded(const std::string& text) {
  std::string out = "left over";
  EXPECT_EQ(system::decode_urlEncoded(text, out), NO_ERROR);
  return out;
}

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
  std::vector<std::string> texts{std::string("a\0%41", 5)};
  for (const char* text : {"", "office", "of%20fice", "a+b", "%", "%%", "%4", "%%41", "%4%41",
                           "%41%", "%0", "x%00y", "\xc3\xa9%C3%a9"})
    texts.emplace_back(text);
  for (int first = 0; first < 256; ++first)
    for (int second = 0; second < 256; ++second)
      texts.push_back({'<', '%', static_cast<char>(first), static_cast<char>(second), '>'});
  for (const std::string& text : texts)
    ASSERT_EQ(decoded(text), libcurl_decoded(text)) << testing::PrintToString(text);
}

// Jansson takes well-formed UTF-8 alone.
TEST(Utf8, IsWhatAJsonTextHolds) {
  const std::string bytes{
      "\x00\x41\x7f\x80\x8f\x90\x9f\xa0\xbf\xc0\xc1\xc2\xdf\xe0\xec\xed\xef\xf0\xf3\xf4\xf5\xff",
      22};
  std::vector<std::string> texts{""};
  for (size_t begin = 0, length = 1; length <= 4; ++length) {
    const size_t end = texts.size();
    for (; begin < end; ++begin)
      for (const char byte : bytes) texts.push_back(texts[begin] + byte);
  }
  for (const std::string& text : texts) {
    const bool valid = static_cast<bool>(Json{json_stringn(text.data(), text.size())});
    const std::string cleaned = fenro::valid_utf8(text);
    ASSERT_EQ(cleaned == text, valid) << testing::PrintToString(text);
    ASSERT_TRUE(Json{json_stringn(cleaned.data(), cleaned.size())}) << testing::PrintToString(text);
  }
  EXPECT_EQ(fenro::valid_utf8("a\xe4z \xc3\xa4 \xed\xa0\x80"),
            "a\uFFFDz \u00e4 \uFFFD\uFFFD\uFFFD");
}

TEST(Lines, AreTakenWithAndWithoutTheirEnds) {
  EXPECT_EQ(split_lines("a\n\nb"), (std::vector<std::string>{"a", "", "b"}));
  EXPECT_EQ(split_lines("a\n"), (std::vector<std::string>{"a"}));
  std::string_view text = "a\r\nb";
  EXPECT_EQ(fenro::take_whole_line(text), "a\r\n");
  EXPECT_EQ(fenro::take_whole_line(text), "b");
  EXPECT_EQ(fenro::take_whole_line(text), "");
}

TEST(Words, AreSplitAtTheBlanksThatAreMeant) {
  EXPECT_EQ(split_words(" a\t b\r\n\vc "), (std::vector<std::string>{"a", "b", "c"}));
  EXPECT_TRUE(split_words(" \n").empty());
  std::string_view text = " a\nb c";
  EXPECT_EQ(fenro::take_word(text), "a\nb");
  EXPECT_EQ(fenro::take_word(text), "c");
  EXPECT_EQ(fenro::take_word(text), "");
}

}  // namespace
}  // namespace ormel
