#include "route_text.h"

#include <algorithm>
#include <string_view>
#include <utility>

namespace manual {

namespace {

constexpr std::string_view VARIABLE = "= ";
constexpr std::string_view ANSWER = "> ";
constexpr std::string_view TYPES[] = {"string", "integer", "file"};
constexpr std::string_view ANSWERS[] = {"array", "object", "any", "file"};
constexpr std::string_view TEXT_MARK = ": ";

// Removes a mark from the end of a name. Returns whether it was there.
bool take_mark(std::string& name, char mark) {
  if (name.size() < 2 || name.back() != mark) return false;
  name.pop_back();
  return true;
}

Variable parse_variable(const std::string& line, const std::string& key) {
  const size_t mark = line.find(TEXT_MARK);
  std::vector<std::string> words = split(line.substr(0, mark), ' ');
  Variable variable;
  if (mark != std::string::npos) variable.text = line.substr(mark + TEXT_MARK.size());
  words.resize(std::max<size_t>(words.size(), 3));
  variable.name = words[0];
  variable.type = words[1];
  variable.fallback = words[2];
  variable.optional = take_mark(variable.name, '?') || !variable.fallback.empty();
  variable.repeated = take_mark(variable.name, '*');
  const bool known = std::ranges::find(TYPES, variable.type) != std::end(TYPES);
  if (!known && variable.name != "*") fail(key + ": no variable: " + line);
  return variable;
}

std::string shown(const Variable& variable) {
  if (variable.name == "*") return variable.text;
  std::string text = '_' + literal(variable.name) + '_';
  if (!variable.fallback.empty())
    text += " (" + variable.fallback + ')';
  else if (variable.optional)
    text += ", optional";
  if (variable.repeated) text += ", repeated";
  if (variable.type == "file") text += ", an upload";
  return variable.text.empty() ? text : text + ": " + variable.text;
}

}  // namespace

RouteText route_text(const Entry& entry) {
  RouteText out;
  std::string before;
  for (const std::string& line : entry.lines) {
    const bool begins = std::exchange(before, line).empty();
    if (begins && line.starts_with('_'))
      fail(entry.key + ": a program cannot read this, see route_text.h: " + line);
    if (line.starts_with(ANSWER)) {
      out.more = split(line.substr(ANSWER.size()), ' ');
      out.answer = out.more.front();
      out.more.erase(out.more.begin());
      if (std::ranges::find(ANSWERS, out.answer) == std::end(ANSWERS))
        fail(entry.key + ": no answer: " + line);
    } else if (line.starts_with(VARIABLE)) {
      const bool first = out.variables.empty();
      out.variables.push_back(parse_variable(line.substr(VARIABLE.size()), entry.key));
      if (!first) out.lines.back().back() = ';';
      out.lines.push_back(shown(out.variables.back()) + '.');
    } else {
      out.lines.push_back(line);
      const bool doubled = line.empty() && !out.prose.empty() && out.prose.back().empty();
      if (!doubled) out.prose.push_back(line);
    }
  }
  while (!out.prose.empty() && out.prose.back().empty()) out.prose.pop_back();
  while (!out.lines.empty() && out.lines.back().empty()) out.lines.pop_back();
  return out;
}

}  // namespace manual
