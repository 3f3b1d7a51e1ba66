// The JSON tree of an answer.
#pragma once

#include "ormel/base/json.h"
