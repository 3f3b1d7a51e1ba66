#include "ormel/changes/settings_text.h"

#include <algorithm>
#include <set>

#include "base/lines.h"
#include "ormel/actions/tunnel_state.h"
#include "ormel/config/fields.h"

namespace ormel::changes {

namespace {

// What the start scripts note in the file. A save by the program drops it, and the next start of a
// server brings it back.
bool is_note_of_scripts(std::string_view key) {
  return key == ENTRANCE_LINE || key.ends_with(RULES_LINE);
}

std::string_view trimmed(std::string_view text) {
  while (text.starts_with(' ')) text.remove_prefix(1);
  while (text.ends_with(' ') || text.ends_with('\r')) text.remove_suffix(1);
  return text;
}

}  // namespace

bool is_live_key(std::string_view section, std::string_view key) {
  return is_note_of_scripts(key) || config::is_live_key(section, key);
}

std::pair<std::string_view, std::string_view> key_and_value(std::string_view line) {
  const size_t equals = line.find('=');
  if (equals == std::string_view::npos || line.starts_with('#') || line.starts_with(';')) return {};
  return {trimmed(line.substr(0, equals)), trimmed(line.substr(equals + 1))};
}

SettingsText::SettingsText(std::string_view text) {
  sections_.push_back({});
  while (!text.empty()) {
    const std::string_view line = fenro::take_line(text);
    if (line.starts_with('[') && line.find(']') != std::string_view::npos)
      sections_.push_back({std::string(line.substr(1, line.find(']') - 1)), {}});
    else
      sections_.back().lines.emplace_back(line);
  }
}

const SettingsText::Section* SettingsText::find(std::string_view name) const {
  const auto found = std::ranges::find(sections_, name, &Section::name);
  return found == sections_.end() ? nullptr : &*found;
}

bool SettingsText::has(std::string_view section) const {
  return find(section) != nullptr;
}

std::vector<std::pair<std::string, std::string>> SettingsText::settings(
    std::string_view section) const {
  std::vector<std::pair<std::string, std::string>> pairs;
  const Section* const found = find(section);
  if (!found) return pairs;
  for (const std::string& line : found->lines) {
    const auto [key, value] = key_and_value(line);
    if (!key.empty() && !is_live_key(section, key)) pairs.emplace_back(key, value);
  }
  return pairs;
}

std::string SettingsText::value(std::string_view section, std::string_view key) const {
  const Section* const found = find(section);
  const std::string* const line = found ? found->line_of(key) : nullptr;
  return line ? std::string(key_and_value(*line).second) : std::string();
}

std::string SettingsText::Section::settled() const {
  std::string text;
  for (const std::string& line : lines) {
    const auto [key, value] = key_and_value(line);
    if (!key.empty() && !is_live_key(name, key))
      text += std::string(key) + " = " + std::string(value) + '\n';
  }
  return text;
}

// The lines of a section that goes back: a live key has the value of the moment, or is left out.
std::vector<std::string> SettingsText::Section::with_live_keys_of(const Section* current) const {
  std::vector<std::string> result;
  size_t end = 0;  // of what is not blank
  std::set<std::string_view> seen;
  for (const std::string& line : lines) {
    const std::string_view key = key_and_value(line).first;
    const std::string* const live =
        is_live_key(name, key) && current ? current->line_of(key) : &line;
    if (is_live_key(name, key) && !current) continue;
    seen.insert(key);
    if (live) result.push_back(*live);
    if (live && !trimmed(*live).empty()) end = result.size();
  }
  if (!current) return result;
  for (const std::string& line : current->lines) {
    const std::string_view key = key_and_value(line).first;
    if (is_live_key(name, key) && seen.insert(key).second)
      result.insert(result.begin() + static_cast<std::ptrdiff_t>(end++), line);
  }
  return result;
}

const std::string* SettingsText::Section::line_of(std::string_view key) const {
  const auto found = std::ranges::find_if(
      lines, [&](const std::string& line) { return key_and_value(line).first == key; });
  return found == lines.end() ? nullptr : &*found;
}

std::string SettingsText::settled() const {
  std::vector<std::string> texts;
  for (const Section& section : sections_)
    texts.push_back('[' + section.name + "]\n" + section.settled());
  std::ranges::sort(texts);
  std::string all;
  for (const std::string& text : texts) all += text;
  return all;
}

std::vector<std::string> SettingsText::differing(const SettingsText& other) const {
  std::set<std::string> names;
  for (const SettingsText* const text : {this, &other}) {
    for (const Section& section : text->sections_) names.insert(section.name);
  }
  std::erase_if(names, [&](const std::string& name) {
    const Section* const mine = find(name);
    const Section* const theirs = other.find(name);
    return mine && theirs && mine->settled() == theirs->settled();
  });
  return {names.begin(), names.end()};
}

std::string SettingsText::with_live_keys_of(const SettingsText& current) const {
  std::string text;
  for (const Section& section : sections_) {
    if (!section.name.empty()) text += '[' + section.name + "]\n";
    for (const std::string& line : section.with_live_keys_of(current.find(section.name)))
      text += line + '\n';
  }
  return text;
}

}  // namespace ormel::changes
