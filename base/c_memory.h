// Memory that crosses a C interface: one side allocates it with malloc, the other frees it.
#pragma once

#include <cstddef>
#include <cstdlib>
#include <memory>

namespace fenro {

struct FreeMemory {
  // The one place that gives such memory back.
  // NOLINTNEXTLINE(cppcoreguidelines-no-malloc,cppcoreguidelines-owning-memory)
  void operator()(void* memory) const noexcept { std::free(memory); }
};

using CString = std::unique_ptr<char, FreeMemory>;
template <typename T>
using CArray = std::unique_ptr<T[], FreeMemory>;

// Zeroed objects for the other side; null when memory is short.
template <typename T>
[[nodiscard]] CArray<T> c_array(std::size_t count) {
  // NOLINTNEXTLINE(cppcoreguidelines-no-malloc,cppcoreguidelines-owning-memory)
  return CArray<T>{static_cast<T*>(std::calloc(count, sizeof(T)))};
}

}  // namespace fenro
