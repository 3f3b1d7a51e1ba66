// The arguments of a program, as the calls that start one take them.
#pragma once

#include <string>
#include <vector>

namespace fenro {

// Returns a pointer to each word, and a null after them; valid until `words` changes.
[[nodiscard]] inline std::vector<char*> argv_of(std::vector<std::string>& words) {
  std::vector<char*> argv;
  argv.reserve(words.size() + 1);
  for (std::string& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);
  return argv;
}

}  // namespace fenro
