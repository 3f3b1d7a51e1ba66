#include "ormelctl/profile.h"

#include <charconv>
#include <cstdio>
#include <ctime>
#include <unistd.h>

#include "ormel/base/error.h"
#include "ormel/host/public_address.h"
#include "ormelctl/advice.h"

namespace ormelctl {
namespace {

// An option of ours and the program's option, for clients of WireGuard and for all others; null:
// not for these.
struct Setting {
  const char* name;
  const char* plain;
  const char* wireguard;
  bool secret;  // the value is a file that holds it
  bool encode;  // stored in URL encoding
};
constexpr Setting SETTINGS[] = {
    {"name", "name", "client_name", false, true},
    {"host", "host", nullptr, false, false},
    {"user", "user", nullptr, false, false},
    {"pass-file", "pass", nullptr, true, false},
    {"psk-file", "psk", "psk", true, false},
    {"port", "port", "port", false, false},
    {"auth", "auth", nullptr, false, false},
    {"enc", "enc", nullptr, false, false},
    {"mask", "mask", "client_mask", false, false},
    {"reconnect", "reconnect", nullptr, false, false},
    {"address", nullptr, "client_ip", false, false},
    {"private-key-file", nullptr, "client_pri_key", true, false},
    {"peer-key", nullptr, "peer_pub_key", false, false},
    {"endpoint", nullptr, "peer_endpoint", false, false},
    {"allowed", nullptr, "peer_allow_ip", false, false},
    {"keepalive", nullptr, "keepalive", false, false},
    {"dns", nullptr, "manual_dns", false, false},
};

// What a new profile needs, in the order in which it is asked for.
struct Need {
  const char* protocol;
  const char* option;
  const char* meaning;
};
constexpr Need NEEDS[] = {
    {"pptp", "name", "the profile's name"},
    {"pptp", "host", "the server's name or address"},
    {"l2tp", "name", "the profile's name"},
    {"l2tp", "host", "the server's name or address"},
    {"l2tp", "psk-file", "a file with the pre-shared key, or - for standard input"},
    {"drovik", "name", "the profile's name"},
    {"drovik", "host", "the server's name or address"},
    {"drovik", "psk-file", "a file with the pre-shared key, or - for standard input"},
    {"wireguard", "name", "the profile's name"},
    {"wireguard", "address", "this host's address in the tunnel"},
    {"wireguard", "peer-key", "the public key of the other end"},
    {"wireguard", "endpoint", "HOST:PORT of the other end"},
};

constexpr const char* WIREGUARD_EXAMPLE =
    "ormelctl profile add wireguard --name w2 --address 198.18.7.5 --peer-key K --endpoint "
    "host.example.org:51820";
constexpr const char* PLAIN_EXAMPLE =
    "ormelctl profile add pptp --name office --host vpn.example.org --user bob --pass-file -";

bool is_wireguard(const Protocol& protocol) {
  return protocol.client == ormel::WIREGUARD_CLIENT_TYPE;
}

bool is_truth(std::string& value) {
  constexpr const char* YES[] = {"yes", "on", "true", "1"};
  constexpr const char* NO[] = {"no", "off", "false", "0"};
  for (const char* word : YES) {
    if (value == word) return value = "TRUE", true;
  }
  for (const char* word : NO) {
    if (value == word) return value = "FALSE", true;
  }
  return false;
}

// The words of the program's command line for the options given. What is wrong goes to `problem`.
bool translate(const Protocol& protocol, const Arguments& arguments,
               std::vector<std::string>& words, Result& problem) {
  for (const Setting& row : SETTINGS) {
    if (!arguments.has(row.name)) continue;
    const char* option = is_wireguard(protocol) ? row.wireguard : row.plain;
    if (!option) {
      problem = failed(Exit::Usage, std::string("--") + row.name + " is not for " + protocol.name);
      return false;
    }
    std::string value = arguments.value(row.name);
    if (row.secret) {
      const auto secret = read_secret(value);
      if (!secret) {
        problem = failed(Exit::Failed, std::string("--") + row.name + ": " + value +
                                           " cannot be read, or is not one line");
        return false;
      }
      value = *secret;
    }
    if (std::string_view(row.name) == "reconnect" && !is_truth(value)) {
      problem = failed(Exit::Usage, "--reconnect is yes or no");
      return false;
    }
    words.push_back(std::string("--") + option + '=' + (row.encode ? encoded(value) : value));
    if (std::string_view(option) == "manual_dns") words.emplace_back("--enable_dns=TRUE");
  }
  return true;
}

// The program's name of an option for a protocol.
auto variable_for(const Protocol& protocol) {
  return [wireguard = is_wireguard(protocol)](std::string_view option) -> const char* {
    for (const Setting& row : SETTINGS) {
      if (option == row.name) return wireguard ? row.wireguard : row.plain;
    }
    return nullptr;
  };
}

bool new_private_key(std::vector<std::string>& words) {
  const Reply keys = call("/ormel/peer/keys");
  const std::string key = text_of(keys.data(), "pri_key");
  words.push_back("--client_pri_key=" + key);
  return !key.empty();
}

// The row of the profile that an action has answered with.
Result shown(const Reply& reply, const std::string& message) {
  const json_t* record = reply.data();
  if (json_is_array(record)) record = json_array_get(record, 0);
  return done(message, json_is_object(record) ? describe_profile(record) : nullptr);
}

std::string state_of(const json_t* record) {
  return text_of(json_object_get(record, "tunnel"), "state");
}

// Waiting longer changes nothing: the tunnel is up, or somebody has to do something.
bool is_settled(Profile& profile) {
  Result problem;
  if (!find_profile(profile.target(), profile, problem)) return true;
  const std::string state = state_of(profile.record.get());
  return state == "up" || state == "failed" || state == "off";
}

// Of a tunnel that is not up after all; `waited` in seconds.
Result not_up(const Profile& profile, long waited, ormel::Json row) {
  const json_t* reason = json_object_get(row.get(), "reason");
  const bool failed_now = text_of(row.get(), "state") == "failed";
  const std::string why = text_of(row.get(), "why");
  Result result = failed(
      failed_now ? Exit::Failed : Exit::TimedOut,
      profile.name + (failed_now ? "" : " is not up after " + std::to_string(waited) + " s") +
          (why.empty() ? "" : ": " + why),
      reason ? text_of(reason, "advice")
             : "check address, account and keys; ormelctl log events shows more");
  result.error = failed_now ? static_cast<int>(number_of(profile.record.get(), "last_error")) : 0;
  result.data = std::move(row);
  return result;
}

// Puts a host in the place of the one that a profile names as its server.
void set_remote(std::string& profile, const std::string& host) {
  constexpr std::string_view OPTION = "\nremote ";
  const size_t option = profile.find(OPTION);
  if (option == std::string::npos) return;
  const size_t at = option + OPTION.size();
  profile.replace(at, profile.find_first_of(" \r\n", at) - at, host);
}

}  // namespace

const Columns PROFILE_COLUMNS = {{"name", "NAME"},   {"target", "PROFILE"}, {"server", "SERVER"},
                                 {"state", "STATE"}, {"since_text", "FOR"}, {"why", "WHY"}};

ormel::Json describe_profile(const json_t* record) {
  const Protocol* protocol = protocol_of(static_cast<int>(number_of(record, "type")));
  const bool wireguard = protocol && is_wireguard(*protocol);
  const std::string state = state_of(record);
  const std::string name = decoded(text_of(record, wireguard ? "client_name" : "profile"));
  const std::string server = text_of(record, wireguard ? "peer_endpoint" : "server_ip");
  ormel::Json row{json_object()};
  const auto set = [&](const char* key, json_t* value) {
    json_object_set_new(row.get(), key, value);
  };
  set("name", json_string(name.c_str()));
  set("protocol", json_string(protocol ? protocol->name.c_str() : ""));
  set("index", json_integer(number_of(record, "index")));
  set("target",
      json_sprintf("%s/%ld", protocol ? protocol->name.c_str() : "", number_of(record, "index")));
  set("server", json_string(server.c_str()));
  set("state", json_string(state.c_str()));
  set("uptime", json_integer(state == "up" ? number_of(record, "uptime") : 0));
  set("address", json_string(text_of(record, wireguard ? "client_ip" : "local_ip").c_str()));
  set("received", json_integer(number_of(record, "rx_total")));
  set("sent", json_integer(number_of(record, "tx_total")));
  add_state(row.get(), record);
  return row;
}

void add_state(json_t* row, const json_t* record) {
  const json_t* tunnel = json_object_get(record, "tunnel");
  const long since = number_of(tunnel, "since");
  json_t* reason = json_object_get(tunnel, "reason");
  json_object_set_new(row, "state", json_string(text_of(tunnel, "state").c_str()));
  json_object_set_new(row, "since", json_integer(since));
  json_object_set_new(
      row, "since_text",
      json_string(
          since == 0 ? "" : duration_text(static_cast<long>(std::time(nullptr)) - since).c_str()));
  json_object_set(row, "reason", reason ? reason : json_null());
  json_object_set_new(row, "why", json_string(text_of(reason, "text").c_str()));
}

Result unknown_protocol(const std::string& name) {
  std::vector<std::string> known;
  for (const Protocol& row : protocols()) known.push_back(row.name);
  return failed(Exit::Usage, "no protocol is named " + name,
                did_you_mean(name, known, "one of " + protocol_names()));
}

Result no_profile_or_server(const std::string& name) {
  const ormel::Json rows = std::move(profile_list({}).data);
  std::vector<std::string> known = names_in(rows.get(), "name");
  for (const Protocol& row : protocols()) known.push_back(row.name);
  return failed(Exit::NotFound, "no profile or server is named " + name,
                did_you_mean(name, known, "ormelctl status shows all"));
}

bool find_profile(const std::string& wanted, Profile& out, Result& problem) {
  const ormel::Json all = records(ALL_CLIENTS);
  std::string candidates;
  std::vector<std::string> known;
  int found = 0;
  size_t at = 0;
  json_t* record = nullptr;
  json_array_foreach(all.get(), at, record) {
    const ormel::Json row = describe_profile(record);
    known.insert(known.end(), {text_of(row.get(), "name"), text_of(row.get(), "target")});
    if (wanted != text_of(row.get(), "name") && wanted != text_of(row.get(), "target")) continue;
    ++found;
    candidates += (candidates.empty() ? "" : ", ") + text_of(row.get(), "target");
    out.protocol = protocol_of(static_cast<int>(number_of(record, "type")));
    out.index = static_cast<int>(number_of(record, "index"));
    out.name = text_of(row.get(), "name");
    out.record.reset(json_incref(record));
  }
  if (found == 1) return true;
  problem = found == 0
                ? failed(Exit::NotFound, "no profile is named " + wanted,
                         did_you_mean(wanted, known, "ormelctl profile list"))
                : failed(Exit::Usage, wanted + " is the name of several profiles: " + candidates,
                         "use one of these instead of the name");
  return false;
}

Result profile_list(const Arguments&) {
  const ormel::Json all = records(ALL_CLIENTS);
  ormel::Json rows{json_array()};
  size_t at = 0;
  json_t* record = nullptr;
  json_array_foreach(all.get(), at, record)
      json_array_append_new(rows.get(), describe_profile(record).release());
  const bool none = json_array_size(rows.get()) == 0;
  return done(none ? "No client profiles. Add one: " + std::string(PLAIN_EXAMPLE) : "",
              std::move(rows), PROFILE_COLUMNS);
}

Result profile_show(const Arguments& arguments) {
  Profile profile;
  Result problem;
  if (!find_profile(arguments.words[0], profile, problem)) return problem;
  return done("", describe_profile(profile.record.get()));
}

Result profile_add(const Arguments& arguments) {
  const Protocol* protocol = find_protocol(arguments.words[0]);
  if (!protocol) return unknown_protocol(arguments.words[0]);
  if (protocol->client == ormel::OVPN_CLIENT_TYPE) {
    return failed(Exit::Usage, "an OpenVPN profile comes from a file",
                  "ormelctl profile import office.ovpn --user bob --pass-file -");
  }
  for (const Need& need : NEEDS) {
    if (protocol->name == need.protocol && !arguments.has(need.option)) {
      return failed(Exit::Usage,
                    std::string("--") + need.option + " is missing (" + need.meaning + ')',
                    is_wireguard(*protocol) ? WIREGUARD_EXAMPLE : PLAIN_EXAMPLE);
    }
  }
  std::vector<std::string> words{"--type=" + protocol->client_word, "--add"};
  Result problem;
  if (!translate(*protocol, arguments, words, problem)) return problem;
  if (is_wireguard(*protocol)) {
    if (!arguments.has("private-key-file") && !new_private_key(words))
      return failed(ormel::ERR_CMD_FAILED);
    if (!arguments.has("mask")) words.emplace_back("--client_mask=32");
  }
  const ChangeLock lock;
  if (!lock) return locked_out();
  const Reply reply = act(words);
  if (reply.error != 0)
    return refused(reply.error, reply.reason, arguments, variable_for(*protocol));
  return shown(reply, arguments.value("name") + " added");
}

Result profile_set(const Arguments& arguments) {
  Profile profile;
  Result problem;
  if (!find_profile(arguments.words[0], profile, problem)) return problem;
  std::vector<std::string> words{"--type=" + profile.protocol->client_word,
                                 "--modify=" + std::to_string(profile.index)};
  if (!translate(*profile.protocol, arguments, words, problem)) return problem;
  if (words.size() == 2)
    return failed(Exit::Usage, "nothing to change",
                  "ormelctl profile set office --host vpn.example.org");
  const ChangeLock lock;
  if (!lock) return locked_out();
  const Reply reply = act(words);
  if (reply.error != 0)
    return refused(reply.error, reply.reason, arguments, variable_for(*profile.protocol));
  return shown(
      reply, profile.name + " changed; connect it again: ormelctl profile up " + profile.target());
}

Result profile_remove(const Arguments& arguments) {
  Profile profile;
  Result problem;
  if (!find_profile(arguments.words[0], profile, problem)) return problem;
  const ChangeLock lock;
  if (!lock) return locked_out();
  const Reply reply =
      act({"--type=" + profile.protocol->client_word, "--remove=" + std::to_string(profile.index)});
  return reply.error != 0 ? failed(reply.error, reply.reason) : done(profile.name + " removed");
}

Result profile_up(const Arguments& arguments) {
  constexpr long MOST = 600;
  const long wait = arguments.seconds("wait", 0);
  if (wait < 0 || wait > MOST) return failed(Exit::Usage, "--wait takes 0 to 600 seconds");
  Profile profile;
  Result problem;
  if (!find_profile(arguments.words[0], profile, problem)) return problem;
  if (arguments.terminal)
    std::fprintf(stderr, "connecting %s ...\n", printable(profile.name).c_str());
  Reply reply;
  {
    const ChangeLock lock;
    if (!lock) return locked_out();
    reply = act(
        {"--type=" + profile.protocol->client_word, "--connect=" + std::to_string(profile.index)});
  }
  if (reply.error != 0) return failed(reply.error, reply.reason);
  std::ignore = comes_true([&] { return is_settled(profile); }, wait);  // the row says it
  if (!find_profile(profile.target(), profile, problem)) return problem;
  ormel::Json row = describe_profile(profile.record.get());
  const std::string state = text_of(row.get(), "state");
  if (state == "up") return done(profile.name + " is up", std::move(row));
  if (wait > 0 || state == "failed") return not_up(profile, wait, std::move(row));
  return done(profile.name + " is being connected; ormelctl status shows when it is up",
              std::move(row));
}

Result profile_down(const Arguments& arguments) {
  Profile profile;
  Result problem;
  if (!find_profile(arguments.words[0], profile, problem)) return problem;
  const ChangeLock lock;
  if (!lock) return locked_out();
  const Reply reply = act(
      {"--type=" + profile.protocol->client_word, "--disconnect=" + std::to_string(profile.index)});
  return reply.error != 0 ? failed(reply.error, reply.reason)
                          : shown(reply, profile.name + " is disconnected");
}

Result profile_export(const Arguments& arguments) {
  const std::string host =
      arguments.has("host") ? arguments.value("host") : ormel::system::public_address();
  if (arguments.has("host") && !ormel::system::is_host(host))
    return failed(Exit::Usage, "--host is a name or an address, without a port");
  const Reply reply = call("/ormel/config/download");
  if (reply.error != 0) {
    return failed(Exit::Failed, "the OpenVPN server has no profile yet",
                  "turn it on: ormelctl server on openvpn");
  }
  const size_t head = reply.text.find("\r\n\r\n");
  std::string body = head == std::string::npos ? "" : reply.text.substr(head + 4);
  if (!host.empty()) set_remote(body, host);
  return done(body, ormel::Json{json_pack("{s:s}", "profile", body.c_str())});
}

}  // namespace ormelctl
