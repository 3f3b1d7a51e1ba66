// The profile model: records, pool and the pattern that the drivers share.
#pragma once

#include "ormel/config/driver.h"
#include "ormel/config/pool.h"
#include "ormel/config/record.h"
