// What differs between two versions of the state, for people: lines as "- old" and "+ new", without
// any secret.
#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace ormel::changes {

using Contents = std::map<std::string, std::string>;  // texts of files of state by path

struct FileDifference {
  std::string path;
  std::vector<std::string> lines;
};

// The content of all files of state now.
[[nodiscard]] Contents read_state(const std::string& root = {});

// The files that differ, in the order of their paths; what tunnels write into vpn.conf is left out.
[[nodiscard]] std::vector<FileDifference> differences(const Contents& before,
                                                      const Contents& after);

}  // namespace ormel::changes
