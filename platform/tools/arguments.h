// The command line of getcfg and setcfg: a fixed number of operands, with options before, after
// or between them.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace fenro {

struct Arguments {
  std::vector<std::string> operands;
  std::map<std::string, std::string, std::less<>> options;  // by name, as in "-f"

  [[nodiscard]] std::string option(std::string_view name, std::string_view fallback) const;
};

// Splits the arguments. The number of operands is fixed, so that a value may look like an option:
// surplus arguments must be options with one value each, searched first after the operands, then
// before, then between them. Returns nothing when the arguments do not fit.
[[nodiscard]] std::optional<Arguments> parse_arguments(
    std::vector<std::string> words, std::size_t operands,
    const std::vector<std::string_view>& options);

}  // namespace fenro
