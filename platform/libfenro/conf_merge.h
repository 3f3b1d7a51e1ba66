// Brings what one run changed together with what others wrote meanwhile.
#pragma once

#include <string>

#include "libfenro/conf_index.h"

namespace fenro {

// The text of a file that is `file` now, was `base` when it was loaded and is to become `mine`.
// What `mine` set, changed or left out since `base` counts; all else stays as `file` has it. A
// section that others removed stays away unless something in it was changed, and then comes back
// whole.
[[nodiscard]] std::string merged_text(const std::string& base, std::string_view file,
                                      const Conf_dir& mine);

}  // namespace fenro
