#include "tools/arguments.h"

#include <algorithm>

namespace fenro {
namespace {

// The place of the next option among the words, or their number for none.
std::size_t find_option(const std::vector<std::string>& words,
                        const std::vector<std::string_view>& options) {
  const auto is_option = [&](std::size_t i) {
    return std::find(options.begin(), options.end(), words[i]) != options.end();
  };
  if (words.size() < 2) return words.size();
  if (is_option(words.size() - 2)) return words.size() - 2;
  for (std::size_t i = 0; i + 2 < words.size(); ++i)
    if (is_option(i)) return i;
  return words.size();
}

}  // namespace

std::string Arguments::option(std::string_view name, std::string_view fallback) const {
  const auto found = options.find(name);
  return found == options.end() ? std::string{fallback} : found->second;
}

std::optional<Arguments> parse_arguments(std::vector<std::string> words, std::size_t operands,
                                         const std::vector<std::string_view>& options) {
  Arguments arguments;
  while (words.size() > operands) {
    const std::size_t at = find_option(words, options);
    if (at == words.size()) return {};
    const auto place = words.begin() + static_cast<std::ptrdiff_t>(at);
    arguments.options.emplace(place[0], place[1]);
    words.erase(place, place + 2);
  }
  if (words.size() < operands) return {};
  arguments.operands = std::move(words);
  return arguments;
}

}  // namespace fenro
