// The profile model: records, pool and the pattern that the drivers share.
#pragma once

#include "ormel/config_driver.h"
#include "ormel/config_pool.h"
#include "ormel/config_record.h"
