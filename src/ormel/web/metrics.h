// Figures of the service for a monitoring system: what is up, who is connected, what has failed.
//
// Each source is queried in a separate process, so that one that hangs costs a second and a half
// and no more. Unknown figures are left out: no value means "unknown".
#pragma once

#include <string>
#include <vector>

#include "ormel/config/pool.h"
#include "ormel/host/gather.h"

namespace ormel::cgi::metrics {

// The whole document, in the format of actions/exposition.h. With `users` it has the bytes of each
// user's sessions.
[[nodiscard]] std::string exposition(bool users);

// A source, and the samples that stand for it when it does not answer in time.
struct Source {
  system::Question ask;
  std::string silence{};
};

// All sources, for a pool that has just been loaded and outlives them.
[[nodiscard]] std::vector<Source> sources(const ormel::config::Management& pool, bool users);

}  // namespace ormel::cgi::metrics
