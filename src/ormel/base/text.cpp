#include "ormel/base/text.h"

#include <algorithm>
#include <cctype>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace ormel {

namespace {

bool visible(char c) {
  return std::isgraph(static_cast<unsigned char>(c)) != 0;
}

}  // namespace

int mb_size(const char& lead) {
  const auto byte = static_cast<unsigned char>(lead);
  if (byte < 128) return 1;
  if (byte >= 192 && byte <= 223) return 2;
  if (byte >= 224 && byte <= 239) return 3;
  if (byte >= 240 && byte <= 247) return 4;
  if (byte >= 248 && byte <= 251) return 5;
  return 6;
}

std::string mb_string(const std::string& text, unsigned int limit) {
  if (limit >= text.size()) return text;
  size_t end = 0;
  while (end + static_cast<size_t>(mb_size(text[end])) <= limit)
    end += static_cast<size_t>(mb_size(text[end]));
  return text.substr(0, end);
}

std::string& ltrim(std::string& text) {
  return text.erase(0, std::find_if(text.begin(), text.end(), visible) - text.begin());
}

std::string& rtrim(std::string& text) {
  text.erase(std::find_if(text.rbegin(), text.rend(), visible).base(), text.end());
  return text;
}

std::string& trim(std::string& text) {
  return ltrim(rtrim(text));
}

std::string ntrim(const char* text, unsigned int length) {
  std::string out(text, length);
  return trim(out);
}

std::string& lstrip(std::string& text, char c) {
  return text.erase(0, text.find_first_not_of(c));
}

std::string to_upper(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
  return text;
}

std::string to_lower(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

int to_int(const char* text) {
  if (!text) return 0;
  return static_cast<int>(std::clamp<long>(std::strtol(text, nullptr, 10), INT_MIN, INT_MAX));
}

std::string clock_text(std::int64_t seconds) {
  const auto time = static_cast<std::time_t>(seconds);
  std::tm parts{};
  char text[sizeof "2000-01-01 00:00:00"];
  const bool shown = localtime_r(&time, &parts) &&
                     std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &parts) > 0;
  return shown ? text : "";
}

char* cut_pattern(char* text, char mark) {
  char* const last = text ? std::strrchr(text, mark) : nullptr;
  if (!last || last == text || last[1] == '\0') return nullptr;
  *last = '\0';
  return last + 1;
}

}  // namespace ormel
