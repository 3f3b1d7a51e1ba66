#include "ormel/changes/difference.h"

#include <algorithm>
#include <set>

#include "base/file.h"
#include "base/lines.h"
#include "base/secret_names.h"
#include "ormel/changes/settings_text.h"
#include "ormel/changes/snapshot.h"
#include "ormel/changes/state_files.h"

namespace ormel::changes {

namespace {

constexpr const char* SECRET = "(secret)";
constexpr std::string_view PEM = "-----BEGIN ";
constexpr const char* OTHER_SECRET = "(another secret)";

using Lines = std::vector<std::string>;

bool has_sections(const std::string& text) {
  return text.starts_with('[') || text.find("\n[") != std::string::npos;
}

std::string line_of(char mark, const std::string& key, const std::string& value,
                    const char* shown) {
  return std::string(1, mark) + ' ' + key + " = " +
         (fenro::is_secret_name(key) && !value.empty() ? shown : value);
}

// The settings of one section that are new, gone or other ones.
void compare_section(const std::string& name, const SettingsText& before, const SettingsText& after,
                     Lines& lines) {
  lines.push_back("  [" + name + ']');
  const auto old = before.settings(name), fresh = after.settings(name);
  std::set<std::string> seen;
  for (const auto& [key, value] : old) {
    seen.insert(key);
    const auto same = std::ranges::find(fresh, key, [](const auto& pair) { return pair.first; });
    if (same != fresh.end() && same->second == value) continue;
    lines.push_back(line_of('-', key, value, SECRET));
    if (same != fresh.end()) lines.push_back(line_of('+', key, same->second, OTHER_SECRET));
  }
  for (const auto& [key, value] : fresh) {
    if (seen.insert(key).second) lines.push_back(line_of('+', key, value, SECRET));
  }
}

Lines compare_sections(const std::string& before, const std::string& after) {
  Lines lines;
  const SettingsText old{before}, fresh{after};
  for (const std::string& name : old.differing(fresh)) compare_section(name, old, fresh, lines);
  return lines;
}

Lines compare_lines(const std::string& before, const std::string& after) {
  const Lines old = fenro::split_lines(before), fresh = fenro::split_lines(after);
  Lines lines;
  const auto add = [&](char mark, const Lines& from, const Lines& other) {
    for (const std::string& line : from) {
      if (std::ranges::find(other, line) == other.end())
        lines.push_back(std::string(1, mark) + ' ' + line);
    }
  };
  add('-', old, fresh);
  add('+', fresh, old);
  if (lines.empty()) lines.emplace_back("  (the order of its lines)");
  return lines;
}

Lines compare(const StateFile& row, const std::string* before, const std::string* after) {
  const std::string& old = before ? *before : std::string();
  const std::string& fresh = after ? *after : std::string();
  if (row.secret && !has_sections(old) && !has_sections(fresh))
    return {!before  ? "+ (secret content)"
            : !after ? "- (secret content)"
                     : "  (other secret content)"};
  if (old.starts_with(PEM) || fresh.starts_with(PEM))
    return {!before  ? "+ (a certificate)"
            : !after ? "- (a certificate)"
                     : "  (another certificate)"};
  Lines lines = has_sections(old) || has_sections(fresh) ? compare_sections(old, fresh)
                                                         : compare_lines(old, fresh);
  if (!after) lines.emplace_back("  (the file is deleted)");
  return lines;
}

}  // namespace

Contents read_state(const std::string& root) {
  Contents contents;
  for (const std::string& path : existing_state(root)) {
    std::string text;
    if (fenro::read_file((root + path).c_str(), text) == 0) contents[path] = std::move(text);
  }
  return contents;
}

std::vector<FileDifference> differences(const Contents& before, const Contents& after) {
  std::set<std::string> paths;
  for (const Contents* const contents : {&before, &after}) {
    for (const auto& [path, text] : *contents) paths.insert(path);
  }
  std::vector<FileDifference> all;
  for (const std::string& path : paths) {
    const auto old = before.find(path), fresh = after.find(path);
    const StateFile* const row = find_state_file(path);
    const bool both = old != before.end() && fresh != after.end();
    const bool whole = row && row->part == Part::SecondFactors;
    const auto content = [&](const std::string& text) {
      return whole ? text : settled_content(path, text);
    };
    if (!row || (both && content(old->second) == content(fresh->second))) continue;
    all.push_back({path, compare(*row, old == before.end() ? nullptr : &old->second,
                                 fresh == after.end() ? nullptr : &fresh->second)});
  }
  return all;
}

}  // namespace ormel::changes
