// Libraries that only few runs need are loaded on first use: each costs every start otherwise.
#pragma once

#include <dlfcn.h>

namespace fenro {

// A library that stays loaded once it is; what it registered with the process would not survive an
// unloading.
class DynamicLibrary {
 public:
  explicit DynamicLibrary(const char* name) : handle_(dlopen(name, RTLD_NOW | RTLD_LOCAL)) {}

  // Fills a pointer of the type that the library's own header gives the function. False when it is
  // missing.
  template <typename Function>
  [[nodiscard]] bool bind(Function*& function, const char* name) const {
    function = handle_ ? reinterpret_cast<Function*>(dlsym(handle_, name)) : nullptr;
    return function != nullptr;
  }

 private:
  void* handle_;
};

}  // namespace fenro
