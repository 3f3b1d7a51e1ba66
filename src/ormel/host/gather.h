// Questions that are asked at the same time, each in a process of its own: one that hangs or dies
// holds back neither the others nor the caller.
#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace ormel::system {

using Question = std::function<std::string()>;

// The answer to each question, in their order; nothing for one that has not ended within `limit` or
// has died. Nothing of such a question's process, and of what it has started, is left afterwards.
[[nodiscard]] std::vector<std::optional<std::string>> gather(const std::vector<Question>& questions,
                                                             std::chrono::milliseconds limit);

}  // namespace ormel::system
