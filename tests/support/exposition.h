// Parses a document in the text format of Prometheus, 0.0.4, and lists its faults.
#pragma once

#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "base/utf8.h"

namespace support {

struct Exposition {
  std::map<std::string, double> samples{};        // by name and labels as written
  std::map<std::string, std::string> families{};  // type by name
  std::vector<std::string> faults{};

  [[nodiscard]] bool has(const std::string& family) const { return families.count(family) != 0; }
};

inline std::string family_of(const std::string& series) {
  return series.substr(0, series.find('{'));
}

inline Exposition parse_exposition(const std::string& text) {
  static const std::regex HELP(R"(# HELP ([a-z_0-9]+) (.+))");
  static const std::regex TYPE(R"(# TYPE ([a-z_0-9]+) (gauge|counter))");
  static const std::regex SAMPLE(
      R"re(([a-z_0-9]+(?:\{[a-z_]+="(?:[^"\\\n]|\\[\\"n])*"(?:,[a-z_]+="(?:[^"\\\n]|\\[\\"n])*")*\})?) (-?[0-9]+))re");
  Exposition out;
  std::set<std::string> helped;
  std::string current;
  std::istringstream in(text);
  std::smatch parts;
  if (!text.ends_with('\n')) out.faults.emplace_back("no line end at the end");
  if (fenro::valid_utf8(text) != text) out.faults.emplace_back("not UTF-8");
  for (std::string line; std::getline(in, line);) {
    if (std::regex_match(line, parts, HELP)) {
      current = parts[1];
      if (!helped.insert(current).second) out.faults.push_back("HELP twice: " + line);
    } else if (std::regex_match(line, parts, TYPE)) {
      const bool fresh = out.families.emplace(parts[1], parts[2]).second;
      if (!fresh || parts[1] != current) out.faults.push_back("TYPE out of place: " + line);
      if ((parts[2] == "counter") != current.ends_with("_total"))
        out.faults.push_back("name and type: " + line);
    } else if (std::regex_match(line, parts, SAMPLE)) {
      if (family_of(parts[1]) != current || !out.families.count(current))
        out.faults.push_back("without HELP and TYPE: " + line);
      if (!out.samples.emplace(parts[1], std::stod(parts[2])).second)
        out.faults.push_back("twice: " + line);
    } else {
      out.faults.push_back("no line of the format: " + line);
    }
  }
  return out;
}

}  // namespace support
