#include "libfenro/ini.h"

#include <algorithm>
#include <vector>

#include "base/lines.h"

namespace fenro::ini {
namespace {

constexpr std::string_view COMMENT_STARTS = "#;";
constexpr std::string_view BYTE_ORDER_MARK = "\xEF\xBB\xBF";

// One search a character: a search for any of several looks at each byte by itself, and every set
// value comes here.
std::size_t find_line_break(std::string_view text) {
  return std::min(text.find('\n'), text.find('\r'));
}

bool has_line_break(std::string_view text) {
  return find_line_break(text) != std::string_view::npos;
}

bool has_nul(std::string_view text) {
  return text.find('\0') != std::string_view::npos;
}

Line parse_section(std::string_view line) {
  const std::size_t end = line.find(']');
  const std::string_view name = line.substr(1, end == std::string_view::npos ? 0 : end - 1);
  return {end == std::string_view::npos || has_nul(name) ? Kind::DamagedSection : Kind::Section,
          name};
}

// A line of an edited text, and whether the wanted section holds it.
struct Placed {
  std::string_view whole;
  Line line;
  bool inside;
};

std::vector<Placed> place_lines(std::string_view text, std::string_view section) {
  std::vector<Placed> lines;
  bool inside = section.empty();
  text = without_mark(text);
  while (!text.empty()) {
    const std::string_view whole = take_whole_line(text);
    const Line line = parse_line(whole);
    if (line.kind == Kind::Section) inside = line.name == section;
    if (line.kind == Kind::DamagedSection) inside = false;
    lines.push_back({whole, line, inside});
  }
  return lines;
}

std::string_view break_of(std::string_view whole) {
  return whole.ends_with("\r\n") ? "\r\n" : "\n";
}

// The line to replace: the last entry of that key, as it is the one that counts.
std::optional<std::size_t> find_entry(const std::vector<Placed>& lines, std::string_view key) {
  for (std::size_t i = lines.size(); i-- > 0;)
    if (lines[i].inside && lines[i].line.kind == Kind::Entry && lines[i].line.name == key) return i;
  return {};
}

// Where a new entry goes: after the last entry, or the head, of the first block of the section.
std::optional<std::size_t> find_place(const std::vector<Placed>& lines, std::string_view section) {
  std::optional<std::size_t> place;
  if (section.empty()) place = 0;
  for (std::size_t i = 0; i < lines.size(); ++i) {
    const bool head = lines[i].line.kind == Kind::Section;
    if (!lines[i].inside || (head && place)) {
      if (place) break;
      continue;
    }
    if (head || lines[i].line.kind == Kind::Entry) place = i + 1;
  }
  return place;
}

// After the last entry of the section whose head is line `head`, and after the empty lines that
// follow it.
std::size_t end_of_block(const std::vector<Placed>& lines, std::size_t head) {
  std::size_t last = head;
  std::size_t end = head + 1;
  for (; end < lines.size() && lines[end].inside && lines[end].line.kind != Kind::Section; ++end)
    if (lines[end].line.kind == Kind::Entry || lines[end].line.kind == Kind::Damaged) last = end;
  std::size_t next = last + 1;
  while (next < end && lines[next].line.kind == Kind::Blank) ++next;
  return next;
}

std::string entry_text(std::string_view key, std::string_view value, std::string_view line_break) {
  return std::string(key).append(" = ").append(value).append(line_break);
}

void append(std::string& out, std::string_view line) {
  if (!out.empty() && out.back() != '\n') out += '\n';
  out += line;
}

}  // namespace

Line parse_line(std::string_view line) {
  if (line.empty()) return {Kind::Blank};
  // A value never holds a line break of either kind, so the first one ends the line.
  if (!line.empty() && line.back() == '\n') line.remove_suffix(1);
  if (const void* end = std::memchr(line.data(), '\r', line.size()))
    line = line.substr(0, static_cast<std::size_t>(static_cast<const char*>(end) - line.data()));

  if (line.empty()) return {Kind::Blank};
  if (line[0] == '[') return parse_section(line);
  if (COMMENT_STARTS.find(line[0]) != std::string_view::npos) return {Kind::Comment};
  const std::size_t equals = line.find('=');
  if (equals == std::string_view::npos)
    return {line.find_first_not_of(" \t") == std::string_view::npos ? Kind::Blank : Kind::Damaged};

  std::string_view key = line.substr(0, equals);
  std::string_view value = line.substr(equals + 1);
  if (key.ends_with(' ')) key.remove_suffix(1);
  if (value.starts_with(' ')) value.remove_prefix(1);
  if (key.empty() || has_nul(key)) return {Kind::Damaged};
  return {Kind::Entry, key, value.substr(0, value.find('\0'))};
}

bool section_is_writable(std::string_view section) {
  return section.find(']') == std::string_view::npos && !has_line_break(section);
}

// Keys are short: one look at each byte is quicker than a search for each mark.
bool key_is_writable(std::string_view key) {
  return !key.empty() && key[0] != '[' && !key.starts_with(BYTE_ORDER_MARK) &&
         COMMENT_STARTS.find(key[0]) == std::string_view::npos &&
         std::ranges::none_of(key, [](char c) { return c == '=' || c == '\n' || c == '\r'; });
}

std::string_view first_line(std::string_view value) {
  return value.substr(0, find_line_break(value));
}

std::string_view without_mark(std::string_view text) {
  return text.starts_with(BYTE_ORDER_MARK) ? text.substr(BYTE_ORDER_MARK.size()) : text;
}

std::optional<std::string_view> find(std::string_view text, std::string_view section,
                                     std::string_view key) {
  std::optional<std::string_view> value;
  text = without_mark(text);
  bool inside = section.empty();
  while (!text.empty()) {
    const Line line = parse_line(take_whole_line(text));
    if (line.kind == Kind::Section) inside = line.name == section;
    if (line.kind == Kind::DamagedSection) inside = false;
    if (inside && line.kind == Kind::Entry && line.name == key) value = line.value;
  }
  return value;
}

std::string with_value(std::string_view text, std::string_view section, std::string_view key,
                       std::string_view value) {
  const std::vector<Placed> lines = place_lines(text, section);
  const std::string_view line_break = lines.empty() ? "\n" : break_of(lines.front().whole);
  const auto entry = find_entry(lines, key);
  const auto place = entry ? entry : find_place(lines, section);

  std::string out;
  out.reserve(text.size() + section.size() + key.size() + value.size() + 16);
  for (std::size_t i = 0; i < lines.size(); ++i) {
    if (i == place)
      append(out, entry_text(key, value, entry ? break_of(lines[i].whole) : line_break));
    // A new first line and the section after it are separated like any two sections.
    if (i == place && !entry && i == 0 && lines[i].line.kind == Kind::Section)
      append(out, line_break);
    if (i != place || !entry) append(out, lines[i].whole);
  }
  if (place == lines.size()) append(out, entry_text(key, value, line_break));
  if (place) return out;

  if (!out.empty()) append(out, line_break);
  append(out, std::string("[").append(section).append("]").append(line_break));
  append(out, entry_text(key, value, line_break));
  return out;
}

std::string without_section(std::string_view text, std::string_view section) {
  const std::vector<Placed> lines = place_lines(text, section);
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < lines.size();) {
    if (lines[i].line.kind != Kind::Section || !lines[i].inside) {
      out += lines[i++].whole;
      continue;
    }
    i = end_of_block(lines, i);
    // Drop the empty lines that separated a removed last section.
    while (i == lines.size() && (out.ends_with("\n\n") || out.ends_with("\n\r\n")))
      out.resize(out.size() - (out.ends_with("\n\n") ? 1 : 2));
  }
  return out;
}

}  // namespace fenro::ini
