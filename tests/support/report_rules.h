// What holds for the report on any OpenVPN profile.
#pragma once

#include <algorithm>
#include <string>
#include <vector>

#include "ormel/base/lines.h"
#include "ormel/drivers/openvpn/report.h"

namespace ormel::test {

// A platform that gives the daemon all of the stored profile but the options `left_out`, and
// accepts it.
inline ovpn::ReportTools tools_without(const std::vector<std::string>& left_out) {
  return {[left_out](const std::string& stored, int) {
            ovpn::DaemonCopy copy{true, {}, 0, {}};
            for (const std::string& line : split_lines(stored)) {
              const bool out = std::any_of(
                  left_out.begin(), left_out.end(),
                  [&](const std::string& name) { return line.starts_with(name + ' '); });
              if (!out) copy.text += line + '\n';
            }
            return copy;
          },
          [](const std::string&, const std::string&) {
            return report::Verdict{true, true, 0, {}, {}};
          }};
}

// The rule that the report breaks; empty when it keeps all: each line of the source has exactly one
// fate, what is kept is in the stored profile byte by byte, and no line of a block is shown.
inline std::string broken_rule(const report::Report& found, const std::string& source) {
  const std::vector<std::string> lines = split_lines(source);
  const std::string stored = '\n' + found.stored;
  size_t next = 1;
  for (const report::Line& line : found.lines) {
    const std::string where = "line " + std::to_string(line.first);
    if (line.first != next || line.last < line.first || line.last > lines.size())
      return where + " is not the next";
    next = line.last + 1;
    if (line.fate != report::Fate::Kept && line.why.empty()) return where + " has no explanation";
    for (size_t at = line.first; at < line.last; ++at) {
      const std::string inner{fenro::trimmed(lines[at])};
      if (inner.size() > 30 && line.text.find(inner) != std::string::npos)
        return where + " shows a block";
    }
    if (line.fate != report::Fate::Kept) continue;
    if (line.first == line.last) {
      std::string text{fenro::trimmed(lines[line.first - 1])};
      if (line.first == 1 && text.starts_with("\xEF\xBB\xBF")) text.erase(0, 3);
      if (stored.find('\n' + text + '\n') == std::string::npos) return where + " is not stored";
    }
    for (size_t at = line.first; at + 1 < line.last; ++at) {
      const std::string inner{fenro::trimmed(lines[at])};
      if (!inner.empty() && stored.find(inner) == std::string::npos)
        return where + ": its block is not stored";
    }
  }
  return next == lines.size() + 1 ? "" : "there are more lines";
}

}  // namespace ormel::test
