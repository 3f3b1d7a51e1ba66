// The table of options, for the command line and for web forms, and the text helpers that are known
// by this namespace.
#pragma once

#include "ormel/base/text.h"
#include "ormel/options/table.h"

namespace ormel::option {

using ormel::lstrip;
using ormel::ltrim;
using ormel::mb_size;
using ormel::mb_string;
using ormel::ntrim;
using ormel::rtrim;
using ormel::trim;

}  // namespace ormel::option
