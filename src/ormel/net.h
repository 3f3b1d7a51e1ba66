// Addresses, HTTPS, facts about the appliance, its sessions, and the judgement of OpenVPN profiles.
#pragma once

#include "ormel/base/address.h"
#include "ormel/base/http.h"
#include "ormel/drivers/openvpn/check.h"
#include "ormel/host/appliance.h"
#include "ormel/host/interfaces.h"
#include "ormel/host/sessions.h"
