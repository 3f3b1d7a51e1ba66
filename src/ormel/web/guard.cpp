// The guard of the default gateway over the web.
#include "ormel/actions/guard.h"

#include <string>

#include "ormel/web/routes.h"

namespace ormel::cgi::guard {

namespace {

int show(const Request&, JsonValue& reply) {
  ormel::guard::describe(reply["data"]);
  return NO_ERROR;
}

// What the request leaves out stays as it is. "pause" comes alone: the settings stay.
Outcome store(const Request& request, JsonValue& reply) {
  Outcome outcome;
  if (request.number("pause", 0) == 1) {
    outcome.code = ormel::guard::pause();
  } else {
    ormel::guard::Settings settings = ormel::guard::load();
    if (request.filled("mode")) settings.mode = request.value("mode");
    if (request.filled("lan")) settings.lan = request.value("lan");
    if (request.filled("ipv6")) settings.ipv6 = request.value("ipv6");
    if (request.filled("dns")) settings.dns = request.value("dns");
    outcome.code = ormel::guard::apply(settings, outcome.reason);
  }
  if (outcome.code == NO_ERROR) ormel::guard::describe(reply["data"]);
  return outcome;
}

constexpr Route ROWS[] = {
    {"/ormel/guard/get", ANY_SESSION, READS, json<show>},
    {"/ormel/guard/set", ADMINISTRATOR, CHANGES, json<store>},
};

}  // namespace

const Routes GUARD{ROWS};

}  // namespace ormel::cgi::guard
