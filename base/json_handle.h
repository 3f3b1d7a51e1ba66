// The owner of a parsed JSON value.
#pragma once

#include <memory>

#include <jansson.h>

namespace fenro {

// json_decref is a static inline: as a template argument it would make a different type in every
// source.
struct FreeJson {
  void operator()(json_t* value) const noexcept { json_decref(value); }
};
using Json = std::unique_ptr<json_t, FreeJson>;

}  // namespace fenro
