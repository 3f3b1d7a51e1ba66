// What the audit trail gets of requests: rows of the table of routes that change something.
#pragma once

#include "ormel/actions/audit.h"
#include "ormel/web/serve.h"

namespace ormel::cgi {

// The recorder of a request whose session is good enough; it records nothing for a route that only
// reads, and for a call within this process, whose program has a row for the whole of its command.
[[nodiscard]] ormel::audit::Recorder recorder_of(const Route& route, const Request& request);

// Records a request that was refused for its session.
void record_refusal(const Route& route, const Request& request, int code);

}  // namespace ormel::cgi
