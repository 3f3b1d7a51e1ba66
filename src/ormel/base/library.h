// Libraries that are loaded on first use: what most runs never need must not slow their start.
#pragma once

#include <dlfcn.h>

namespace ormel {

// Loads a library, and never unloads it: some register handlers that run at exit. Returns false if
// it is missing.
[[nodiscard]] inline bool load_library(const char* name) {
  return dlopen(name, RTLD_NOW | RTLD_GLOBAL) != nullptr;
}

// Finds a function of a loaded library. From the global scope, so that a preloaded function of that
// name comes first, as with ordinary linking.
template <typename Function>
[[nodiscard]] bool find_function(Function& function, const char* name) {
  function = reinterpret_cast<Function>(dlsym(RTLD_DEFAULT, name));
  return function != nullptr;
}

}  // namespace ormel
