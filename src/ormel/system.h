// Host services: processes, log and service bus.
#pragma once

#include "ormel/system_bus.h"
#include "ormel/system_log.h"
#include "ormel/system_process.h"
