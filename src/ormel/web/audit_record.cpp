#include "ormel/web/audit_record.h"

#include <algorithm>
#include <iterator>

#include "ormel/drivers/wireguard/peers.h"
#include "ormel/drivers/wireguard/wireguard.h"
#include "ormel/options/table.h"
#include "ormel/web/access.h"

namespace ormel::cgi {

namespace {

using ormel::audit::Origin;
using ormel::audit::Recorder;

constexpr std::string_view PREFIX = "/ormel/";

std::string action_of(const Route& route) {
  const std::string_view path = route.path;
  return std::string(path.starts_with(PREFIX) ? path.substr(PREFIX.size()) : path);
}

Origin origin_of(const Request& request) {
  const Sender sender = sender_of(request);
  return {sender.user, "web", sender.ip};
}

std::string decoded(const char* text) {
  return ormel::audit::percent_decoded(text);
}

// A record by two variables, and by its name where it may be new.
std::string record_named(const Request& request, const char* type, const char* index) {
  return ormel::audit::subject_of(option::parse_type(request.value(type)), request.number(index, 0),
                                  decoded(request.value("name")));
}

std::string profile(const Request& request) {
  return record_named(request, "type", "index");
}

std::string gateways(const Request& request) {
  const std::string first = record_named(request, "gw1_type", "gw1_index");
  const std::string second = record_named(request, "gw2_type", "gw2_index");
  return second.empty() ? first : first + ", " + second;
}

std::string device(const Request& request) {
  const int index = request.number("index", 0);
  std::string given = decoded(request.value("peer_name"));
  if (index < 1) return given;
  const std::string stored = wireguard::PeerFile(wireguard::FOLDER).peer(index).name;
  const std::string name = given.empty() ? decoded(stored.c_str()) : given;
  return std::to_string(index) + (name.empty() ? "" : " (" + name + ')');
}

std::string joined(const std::vector<char*>& values, char end) {
  std::string all;
  for (const std::string_view value : values)
    all += (all.empty() ? "" : ", ") + std::string(value.substr(0, value.rfind(end)));
  return all;
}

// Of "user|mask" the user.
std::string users(const Request& request) {
  return joined(request.values("user"), '|');
}

constexpr char CONNECTION[] = "conn";
constexpr char HELD[] = "who";
constexpr char NAME[] = "name";
constexpr char MODE[] = "mode";
constexpr char SESSION[] = "id";
constexpr char DEVICE_KEY[] = "key";
constexpr char STEP[] = "step";
constexpr char ORGANIZATION[] = "org_name";

template <const char* Variable>
std::string values(const Request& request) {
  return joined(request.values(Variable), '\0');
}

// What a request is about, by the beginning of its action; the first that fits.
struct Subject {
  std::string_view family;
  std::string (*of)(const Request& request);
};
constexpr Subject SUBJECTS[] = {
    {"config/", profile},
    {"gateway/", gateways},
    {"peer/", device},
    {"privilege/", users},
    {"grant/", users},
    {"my/end", values<SESSION>},
    {"my/device_remove", values<DEVICE_KEY>},
    {"connection/", values<CONNECTION>},
    {"hold/", values<HELD>},
    {"guard/", values<MODE>},
    {"cert/", values<STEP>},
    {"pelmar/", values<ORGANIZATION>},
    {"", values<NAME>},
};

std::string subject_of(const std::string& action, const Request& request) {
  const auto* const row = std::ranges::find_if(
      SUBJECTS, [&](const Subject& subject) { return action.starts_with(subject.family); });
  return row->of(request);
}

bool is_recorded(const Route& route, const Request& request) {
  return route.effect != READS && !request.is_local() && ormel::audit::is_kept();
}

}  // namespace

Recorder recorder_of(const Route& route, const Request& request) {
  if (!is_recorded(route, request)) return {};
  const std::string action = action_of(route);
  return {origin_of(request), action, subject_of(action, request)};
}

void record_refusal(const Route& route, const Request& request, int code) {
  if (!is_recorded(route, request)) return;
  const std::string action = action_of(route);
  ormel::audit::note_refusal(origin_of(request), action, subject_of(action, request), code);
}

}  // namespace ormel::cgi
