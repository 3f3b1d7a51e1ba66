#include "ormel/web/routes.h"

#include <algorithm>

namespace ormel::cgi {

namespace {

constexpr const Routes* PARTS[] = {
    &config::PROFILES,
    &config::UPLOADS,
    &config::REPORT,
    &config::PROFILE_EDIT,
    &config::DOWNLOADS,
    &peer::PEERS,
    &connection::CONNECTIONS,
    &connection::ENDINGS,
    &doctor::DOCTOR,
    &keeper::KEEPER,
    &log::EVENTS,
    &misc::FACTS,
    &misc::NETWORK,
    &user::USERS,
    &privilege::RIGHTS,
    &privilege::BLOCKS,
    &gateway::POLICY,
    &guard::GUARD,
    &pelmar::STATUS,
    &pelmar::JOINING,
    &pelmar::LOGIN,
    &status::STATES,
    &audit::TRAIL,
    &change::CHANGE,
    &backup::BACKUP,
    &address::ADDRESS,
    &certificate::CERTIFICATES,
    &my::OWN,
    &my::DEVICES,
    &my::SECOND_FACTOR,
    &grant::GRANTS,
    &metrics::METRICS,
    &token::TOKENS,
};

}  // namespace

std::vector<Route> routes() {
  std::vector<Route> all;
  for (const Routes* part : PARTS) all.insert(all.end(), part->begin(), part->end());
  return all;
}

const Route* find_route(std::string_view path) {
  for (const Routes* part : PARTS) {
    const auto row = std::find_if(part->begin(), part->end(),
                                  [path](const Route& route) { return route.path == path; });
    if (row != part->end()) return &*row;
  }
  return nullptr;
}

int serve_path(std::string_view path, JsonValue& response) {
  if (const Route* route = find_route(path)) return serve(*route, response);
  return fail(response,
              Outcome{ERR_API_NOT_FOUND, reason_of(ERR_API_NOT_FOUND) + std::string(path)});
}

}  // namespace ormel::cgi
