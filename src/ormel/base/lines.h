// Texts as lines and words.
#pragma once

#include "base/lines.h"

namespace ormel {

using fenro::one_line;
using fenro::split_lines;
using fenro::split_words;

}  // namespace ormel
