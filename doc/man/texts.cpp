#include "texts.h"

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string_view>

namespace manual {

namespace {

constexpr const char* HEAD = "@ ";
constexpr const char* DETAIL_MARK = " | ";
constexpr std::string_view MARKS = "*_\\`[";  // of scdoc

bool failed = false;

Entry parse_head(const std::string& line) {
  const std::string text = line.substr(std::string(HEAD).size());
  const size_t mark = text.find(DETAIL_MARK);
  if (mark == std::string::npos) return {text, "", {}};
  return {text.substr(0, mark), text.substr(mark + std::string(DETAIL_MARK).size()), {}};
}

// Empty lines around a text belong to the file, not to it.
void trim(std::vector<std::string>& lines) {
  while (!lines.empty() && lines.back().empty()) lines.pop_back();
  while (!lines.empty() && lines.front().empty()) lines.erase(lines.begin());
}

}  // namespace

Texts::Texts(const std::string& path) : path_(path) {
  std::ifstream in(path);
  if (!in) fail(path + ": cannot be read");
  for (std::string line; std::getline(in, line);) {
    if (line.starts_with(HEAD)) {
      entries_.push_back(parse_head(line));
      Entry& entry = entries_.back();
      if (!by_key_.emplace(entry.key, &entry).second)
        fail(path + ": two entries \"" + entry.key + '"');
    } else if (!entries_.empty()) {
      entries_.back().lines.push_back(line);
    }
  }
  for (Entry& entry : entries_) {
    trim(entry.lines);
    if (entry.lines.empty()) fail(path + ": no text for \"" + entry.key + '"');
  }
}

const Entry* Texts::find(const std::string& key) {
  const auto found = by_key_.find(key);
  if (found == by_key_.end()) return nullptr;
  found->second->used = true;
  return found->second;
}

const Entry& Texts::of(const std::string& key) {
  static const Entry NONE{};
  const Entry* found = find(key);
  if (!found) fail(path_ + ": no entry \"" + key + '"');
  return found ? *found : NONE;
}

void Texts::check_all_used() const {
  for (const Entry& entry : entries_) {
    if (!entry.used) fail(path_ + ": \"" + entry.key + "\" is in no table of the program");
  }
}

void fail(const std::string& what) {
  std::fprintf(stderr, "manual: %s\n", what.c_str());
  failed = true;
}

bool has_failed() {
  return failed;
}

std::string literal(const std::string& text) {
  std::string out;
  for (const char c : text) {
    if (MARKS.find(c) != std::string_view::npos) out += '\\';
    out += c;
  }
  return out;
}

std::string joined(const std::vector<std::string>& lines) {
  std::string out;
  for (const std::string& line : lines) out += (out.empty() ? "" : " ") + line;
  return out;
}

std::vector<std::string> split(const std::string& text, char mark) {
  std::vector<std::string> parts;
  std::istringstream in(text);
  for (std::string part; std::getline(in, part, mark);) parts.push_back(part);
  return parts;
}

}  // namespace manual
