// How much of an answer over HTTP is taken into memory.
#pragma once

#include <cstddef>

namespace fenro {

inline constexpr std::size_t HTTP_ANSWER_MAX = std::size_t{4} << 20;  // bytes

}  // namespace fenro
