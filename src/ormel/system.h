// Host services: processes, files, settings, log and service bus.
#pragma once

#include "ormel/base/file.h"
#include "ormel/base/http.h"
#include "ormel/base/log.h"
#include "ormel/host/bus.h"
#include "ormel/host/event_log.h"
#include "ormel/host/log_file.h"
#include "ormel/host/process.h"
#include "ormel/host/settings.h"
#include "ormel/host/vpn_process.h"
