// The command line, and the actions that it shares with the web handlers.
#pragma once

#include "ormel/actions/actions.h"
