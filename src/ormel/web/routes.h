// The table of routes. Its rows are in the files of their work, at the end of each; here they come
// together.
#pragma once

#include <string_view>
#include <vector>

#include "ormel/web/serve.h"

namespace ormel::cgi {

namespace audit {
extern const Routes TRAIL;
}
namespace backup {
extern const Routes BACKUP;
}
namespace certificate {
extern const Routes CERTIFICATES;
}
namespace config {
extern const Routes PROFILES, UPLOADS, PROFILE_EDIT, DOWNLOADS, REPORT;
}
namespace change {
extern const Routes CHANGE;
}
namespace peer {
extern const Routes PEERS;
}
namespace address {
extern const Routes ADDRESS;
}
namespace connection {
extern const Routes CONNECTIONS, ENDINGS;
}
namespace doctor {
extern const Routes DOCTOR;
}
namespace keeper {
extern const Routes KEEPER;
}
namespace log {
extern const Routes EVENTS;
}
namespace metrics {
extern const Routes METRICS;
}
namespace my {
extern const Routes OWN, DEVICES, SECOND_FACTOR;
}
namespace misc {
extern const Routes FACTS, NETWORK;
}
namespace status {
extern const Routes STATES;
}
namespace token {
extern const Routes TOKENS;
}
namespace user {
extern const Routes USERS;
}
namespace privilege {
extern const Routes RIGHTS, BLOCKS;
}
namespace gateway {
extern const Routes POLICY;
}
namespace grant {
extern const Routes GRANTS;
}
namespace guard {
extern const Routes GUARD;
}
namespace pelmar {
extern const Routes STATUS, JOINING, LOGIN;
}

// All rows, family by family.
[[nodiscard]] std::vector<Route> routes();

// The row of a path, null for an unknown path.
[[nodiscard]] const Route* find_route(std::string_view path);

// Answers a request for a path: by its row, or with "api not found". Returns the code of the reply.
int serve_path(std::string_view path, JsonValue& response);

}  // namespace ormel::cgi
