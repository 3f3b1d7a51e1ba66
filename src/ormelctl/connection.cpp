// Who is connected to the servers, and ending sessions.
#include <algorithm>
#include <cstdio>

#include "ormel/base/error.h"
#include "ormelctl/advice.h"
#include "ormelctl/profile.h"

namespace ormelctl {
namespace {

constexpr long LONGEST_HOLD = 7L * 86400;
constexpr long MINUTE = 60;

const Columns WHO_COLUMNS = {
    {"user", "USER"},      {"protocol", "PROTOCOL"}, {"source", "FROM"},  {"address", "ADDRESS"},
    {"since_text", "FOR"}, {"traffic", "IN / OUT"},  {"target", "TARGET"}};

// A device of WireGuard has no session: its time is that of its latest handshake.
ormel::Json session_row(const json_t* peer) {
  const long type = number_of(peer, "type");
  const Protocol* protocol = protocol_of(static_cast<int>(type));
  const std::string name = protocol ? protocol->name : "";
  const double in = json_number_value(json_object_get(peer, "rx_total"));
  const double out = json_number_value(json_object_get(peer, "tx_total"));
  const long uptime = number_of(peer, "uptime");
  const std::string since =
      duration_text(uptime) + (type == ormel::WIREGUARD_SERVER_TYPE ? " ago" : "");
  const std::string traffic = size_text(in) + " / " + size_text(out);
  const std::string target = text_of(peer, "target");
  return ormel::Json{json_pack(
      "{s:s, s:s, s:s, s:s, s:I, s:s, s:f, s:f, s:s, s:s, s:s, s:I}", "user",
      text_of(peer, "name").c_str(), "protocol", name.c_str(), "source",
      text_of(peer, "source_ip").c_str(), "address", text_of(peer, "allocate_ip").c_str(), "uptime",
      static_cast<json_int_t>(uptime), "since_text", since.c_str(), "received", in, "sent", out,
      "traffic", traffic.c_str(), "target", (name + '/' + target).c_str(), "conn",
      (std::to_string(type) + '|' + target).c_str(), "held",
      json_integer_value(json_object_get(peer, "held")))};
}

Result sessions(ormel::Json& rows) {
  const Reply live = call("/ormel/connection/all");
  if (live.error != 0) return failed(live.error, live.reason);
  rows.reset(json_array());
  size_t at = 0;
  const json_t* peer = nullptr;
  json_array_foreach(live.data(), at, peer)
      json_array_append_new(rows.get(), session_row(peer).release());
  return {};
}

// What became of the connections, in one sentence and as rows.
Result ended(const std::string& wanted, const Reply& reply) {
  size_t left = 0;
  long longest = 0;
  long until = 0;
  size_t at = 0;
  const json_t* row = nullptr;
  json_array_foreach(reply.data(), at, row) {
    if (!json_is_true(json_object_get(row, "gone"))) ++left;
    longest = std::max(longest, number_of(row, "ms"));
    until = std::max(until, number_of(row, "held_until"));
  }
  const size_t count = json_array_size(reply.data());
  const std::string kept = until == 0 ? "" : "; kept out until " + moment_text(until);
  ormel::Json rows{json_incref(reply.data())};
  if (left == 0) {
    constexpr double MILLISECONDS = 1000;
    char took[32];
    std::snprintf(took, sizeof took, "%.1f s", static_cast<double>(longest) / MILLISECONDS);
    return done(wanted + ": " + std::to_string(count) + (count == 1 ? " session" : " sessions") +
                    " ended, gone after " + took + kept,
                std::move(rows));
  }
  Result result =
      failed(Exit::TimedOut,
             wanted + ": " + std::to_string(left) + " of " + std::to_string(count) +
                 (count == 1 ? " session is" : " sessions are") + " still there after 10 s" + kept,
             "the server's daemon may hang: ormelctl server list");
  result.error = reply.error;
  result.data = std::move(rows);
  return result;
}

}  // namespace

Result who(const Arguments&) {
  ormel::Json rows;
  if (Result problem = sessions(rows); problem.exit != Exit::Done) return problem;
  const bool none = json_array_size(rows.get()) == 0;
  return done(none ? "No one is connected." : "", std::move(rows), WHO_COLUMNS);
}

Result kick(const Arguments& arguments) {
  const std::string& wanted = arguments.words[0];
  const long seconds = arguments.seconds("for", 0);
  if (seconds < 0 || seconds > LONGEST_HOLD || (arguments.has("for") && seconds == 0))
    return failed(Exit::Usage, "--for takes 1m to 7d", "ormelctl kick bob --for 30m");
  ormel::Json rows;
  if (Result problem = sessions(rows); problem.exit != Exit::Done) return problem;
  Form form{{"minutes", std::to_string((seconds + MINUTE - 1) / MINUTE)}};
  size_t at = 0;
  const json_t* row = nullptr;
  json_array_foreach(rows.get(), at, row) {
    if (text_of(row, "user") != wanted && text_of(row, "target") != wanted) continue;
    if (text_of(row, "protocol") == "wireguard" && seconds == 0) {
      return failed(Exit::Usage,
                    "a WireGuard device has no session to end; it can be kept out for a time",
                    "ormelctl kick " + wanted + " --for 30m");
    }
    form.emplace_back("conn", text_of(row, "conn"));
  }
  if (form.size() == 1) {
    std::vector<std::string> known = names_in(rows.get(), "user");
    for (std::string& target : names_in(rows.get(), "target")) known.push_back(std::move(target));
    return failed(Exit::NotFound, wanted + " is not connected",
                  did_you_mean(wanted, known, "ormelctl who"));
  }
  if (arguments.terminal)
    std::fputs("ending, and waiting for the server to confirm it ...\n", stderr);
  const Reply reply = call("/ormel/connection/end", form);
  if (reply.error == ormel::ERR_CONFIGURE_INDEX)
    return failed(Exit::NotFound, wanted + " has gone meanwhile", "ormelctl who");
  if (reply.error != 0 && reply.error != ormel::ERR_KILL_PROCESS)
    return failed(reply.error, reply.reason);
  return ended(wanted, reply);
}

}  // namespace ormelctl
