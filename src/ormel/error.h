// The one numeric space of results.
#pragma once

#include "ormel/base/error.h"
