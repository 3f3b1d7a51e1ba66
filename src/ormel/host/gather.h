// Questions that are asked at the same time, each in a separate process, so that one that hangs or
// dies delays neither the others nor the caller.
#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace ormel::system {

using Question = std::function<std::string()>;

// Returns the answers in the order of the questions; nothing for one that has died, or has not
// ended within `limit`. Its process and the programs that it has started are killed.
[[nodiscard]] std::vector<std::optional<std::string>> gather(const std::vector<Question>& questions,
                                                             std::chrono::milliseconds limit);

}  // namespace ormel::system
