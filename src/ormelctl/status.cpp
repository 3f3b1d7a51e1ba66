// Everything at a glance.
#include <algorithm>

#include "ormel/host/bus.h"
#include "ormel/host/daemons.h"
#include "ormelctl/doctor.h"

namespace ormelctl {
namespace {

constexpr int BUS_SECONDS = 1;

}  // namespace

ormel::Json daemon_rows() {
  ormel::Json rows{json_array()};
  for (const ormel::system::BusDaemon& daemon : ormel::system::BUS_DAEMONS) {
    const bool up = ormel::system::serves(daemon.service, BUS_SECONDS);
    json_array_append_new(
        rows.get(),
        json_pack(
            "{s:s, s:s, s:s}", "daemon", daemon.name, "state", up ? "running" : "failed", "reason",
            up ? "" : (std::string("does not answer; without it: ") + daemon.without).c_str()));
  }
  return rows;
}

namespace {

void add_part(std::string& text, const char* title, const json_t* rows, const Columns& columns) {
  if (json_array_size(rows) == 0) return;
  text += (text.empty() ? "" : "\n") + std::string(title) + '\n' + table(rows, columns);
}

// One profile or server, and whether it is in the state that --check asks for.
Result one_state(const Arguments& arguments) {
  Result result;
  Profile profile;
  if (find_profile(arguments.words[0], profile, result)) {
    result = done("", describe_profile(profile.record.get()));
  } else if (const Protocol* protocol = find_protocol(arguments.words[0]);
             result.exit == Exit::NotFound) {
    if (!protocol) return no_profile_or_server(arguments.words[0]);
    const ormel::Json rows = server_rows();
    size_t at = 0;
    json_t* row = nullptr;
    json_array_foreach(rows.get(), at, row) {
      if (text_of(row, "protocol") == protocol->name)
        result = done("", ormel::Json{json_incref(row)});
    }
  }
  const std::string state = text_of(result.data.get(), "state");
  if (result.exit == Exit::Done && arguments.has("check") && state != arguments.value("check")) {
    result.exit = Exit::Differs;
    result.reason = arguments.words[0] + " is " + state + ", not " + arguments.value("check");
  }
  return result;
}

}  // namespace

Result status(const Arguments& arguments) {
  if (!arguments.words.empty()) return one_state(arguments);
  if (arguments.has("check"))
    return failed(Exit::Usage, "--check needs a profile or a server",
                  "ormelctl status office --check up");
  ormel::Json servers = server_rows();
  ormel::Json profiles = std::move(profile_list({}).data);
  ormel::Json gateway = std::move(gateway_show({}).data);
  ormel::Json daemons = daemon_rows();
  ormel::Json sessions = std::move(who({}).data);
  std::string text;
  add_part(text, "Servers", servers.get(), SERVER_COLUMNS);
  add_part(text, "Client profiles", profiles.get(), PROFILE_COLUMNS);
  add_part(text, "Daemons", daemons.get(),
           {{"daemon", "DAEMON"}, {"state", "STATE"}, {"reason", "WHY"}});
  text += "\nConnected: " +
          (sessions ? std::to_string(json_array_size(sessions.get())) : std::string("unknown"));
  text += "   Default gateway: " +
          (gateway ? text_of(gateway.get(), "in_use") : std::string("unknown")) + '\n';
  ormel::Json data{json_object()};
  json_object_set(data.get(), "servers", servers.get());
  json_object_set_new(data.get(), "profiles", profiles ? profiles.release() : json_null());
  json_object_set_new(data.get(), "gateway", gateway ? gateway.release() : json_null());
  json_object_set(data.get(), "daemons", daemons.get());
  json_object_set_new(data.get(), "sessions", sessions ? sessions.release() : json_null());
  Result result = done(text, std::move(data));
  if (const Findings damaged = damaged_files(); !damaged.empty())
    result.note = damaged[0].text + ": " + damaged[0].cure;
  return result;
}

}  // namespace ormelctl
