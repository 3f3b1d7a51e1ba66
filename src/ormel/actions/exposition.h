// Figures in the text format of Prometheus, version 0.0.4: one table of all families, and samples
// whose labels may hold anything.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <span>
#include <string>
#include <string_view>
#include <utility>

namespace ormel::metrics {

struct Family {
  std::string_view name;
  const char* type;  // "gauge" or "counter"
  const char* help;
};

// All families, in the order in which they are shown.
[[nodiscard]] std::span<const Family> families();

using Labels = std::initializer_list<std::pair<const char*, std::string_view>>;

// One sample as a line with its end: `NAME{LABEL="VALUE",...} NUMBER`. Values of labels are made
// valid UTF-8 and escaped. Empty ones are left out, which means the same in this format.
[[nodiscard]] std::string sample(std::string_view family, const Labels& labels, int64_t number);

// Lines of samples, in any order, as a document: each family that has any after its HELP and TYPE.
// Of samples with the same name and labels the first counts; what belongs to no family is left out.
[[nodiscard]] std::string document(std::string_view samples);

}  // namespace ormel::metrics
