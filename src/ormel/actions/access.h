// How logins of one user went: the latest ones, and what wrong passwords have cost.
#pragma once

#include <cstdint>
#include <ctime>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace ormel::access {

struct Login {
  int server = 0;  // TYPE
  std::time_t at = 0;
  bool refused = false;
  std::string source{};  // address
  std::string reason{};  // of a refusal, empty where none was kept
};

// The latest logins and refusals of a user, at most `count`, the newest first. Nothing when the log
// database does not answer.
[[nodiscard]] std::optional<std::vector<Login>> latest_logins(const std::string& user,
                                                              std::size_t count);

struct Failures {
  int count = 0;          // of wrong passwords in a row
  std::time_t until = 0;  // end of the block; 0 for a user who is not blocked
};

// The failures of all users who have any, by name, and those of one user. Nothing when the log
// database does not answer.
[[nodiscard]] std::optional<std::map<std::string, Failures>> all_failures();
[[nodiscard]] std::optional<Failures> failures_of(const std::string& user);

}  // namespace ormel::access
