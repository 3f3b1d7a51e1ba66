// The servers: their settings, whether they run, and turning them on and off.
#include "ormel/base/error.h"
#include "ormelctl/profile.h"

namespace ormelctl {
namespace {

// An option of ours and the form variable of /ormel/config/modify.
struct Setting {
  const char* name;
  const char* variable;
  bool secret, truth;
};
constexpr Setting SETTINGS[] = {
    {"pool", "ip_pool", false, false},
    {"max", "maximum", false, false},
    {"port", "port", false, false},
    {"proto", "proto", false, false},
    {"enc", "enc", false, false},
    {"auth", "auth", false, false},
    {"mss", "mss", false, false},
    {"psk-file", "psk", true, false},
    {"interface", "out_eif", false, false},
    {"redirect", "gateway", false, true},
    {"compress", "compress", false, true},
    {"name", "server_name", false, false},
    {"address", "server_ip", false, false},
    {"mask", "server_mask", false, false},
    {"private-key-file", "server_pri_key", true, false},
};

constexpr long START_SECONDS = 15;  // that a server's script may take

constexpr const char* SECRETS[] = {"psk", "server_pri_key", "peers"};

ormel::Json record_of(const Protocol& protocol) {
  const ormel::Json all = records(protocol.server);
  return ormel::Json{json_incref(json_array_get(all.get(), 0))};
}

ormel::Json row_of(const Protocol& protocol, const json_t* record) {
  const bool on = json_is_true(json_object_get(record, "enable"));
  const bool wireguard = protocol.server == ormel::WIREGUARD_SERVER_TYPE;
  ormel::Json row{json_pack("{s:s, s:b, s:s, s:i}", "protocol", protocol.name.c_str(), "on",
                            on ? 1 : 0, "network",
                            text_of(record, wireguard ? "server_ip" : "ip_pool").c_str(), "port",
                            static_cast<int>(number_of(record, "port")))};
  add_state(row.get(), record);
  return row;
}

// WireGuard is turned on with its network, which the program checks.
void add_network(const Protocol& protocol, const json_t* record, Form& form) {
  if (protocol.server != ormel::WIREGUARD_SERVER_TYPE) return;
  const auto given = [&](const char* name) {
    for (const auto& [known, value] : form) {
      if (known == name) return true;
    }
    return false;
  };
  if (!given("server_ip")) form.emplace_back("server_ip", text_of(record, "server_ip"));
  if (!given("server_mask"))
    form.emplace_back("server_mask", std::to_string(number_of(record, "server_mask")));
  const std::string name = text_of(record, "server_name");
  if (!given("server_name")) form.emplace_back("server_name", name.empty() ? protocol.name : name);
  if (given("server_pri_key")) return;
  std::string key = text_of(record, "server_pri_key");
  if (key.empty()) key = text_of(call("/ormel/peer/keys").data(), "pri_key");
  form.emplace_back("server_pri_key", key);
}

const char* variable_of(std::string_view option) {
  for (const Setting& row : SETTINGS) {
    if (option == row.name) return row.variable;
  }
  return nullptr;
}

}  // namespace

void complete_network(const Protocol& protocol, Form& form) {
  add_network(protocol, record_of(protocol).get(), form);
}

namespace {

Result change(const Protocol& protocol, Form form, bool on, const Arguments& arguments,
              const std::string& message) {
  const ChangeLock lock;
  if (!lock) return locked_out();
  form.emplace_back("type", protocol.server_word);
  form.emplace_back("enable", on ? "true" : "false");
  if (on) complete_network(protocol, form);
  const Reply reply = call("/ormel/config/modify", form);
  if (reply.error != 0) return refused(reply.error, reply.reason, arguments, variable_of);
  ormel::Json row;
  const auto has_started = [&] {
    row = row_of(protocol, record_of(protocol).get());
    return text_of(row.get(), "state") != "starting";
  };
  std::ignore = comes_true(has_started, START_SECONDS);  // the row says it
  if (text_of(row.get(), "state") == "failed") {
    const json_t* reason = json_object_get(row.get(), "reason");
    Result result = failed(
        Exit::Failed,
        "the " + protocol.name + " server is on, but does not run: " + text_of(row.get(), "why"),
        text_of(reason, "advice"));
    result.data = std::move(row);
    return result;
  }
  return done(message, std::move(row));
}

}  // namespace

const Columns SERVER_COLUMNS = {{"protocol", "SERVER"},
                                {"state", "STATE"},
                                {"network", "NETWORK"},
                                {"port", "PORT"},
                                {"why", "WHY"}};

ormel::Json server_rows() {
  const ormel::Json all = records(ALL_SERVERS);
  ormel::Json rows{json_array()};
  size_t at = 0;
  json_t* record = nullptr;
  json_array_foreach(all.get(), at, record) {
    const Protocol* protocol = protocol_of(static_cast<int>(number_of(record, "type")));
    if (protocol) json_array_append_new(rows.get(), row_of(*protocol, record).release());
  }
  return rows;
}

Result server_list(const Arguments&) {
  return done("", server_rows(), SERVER_COLUMNS);
}

Result server_show(const Arguments& arguments) {
  const Protocol* protocol = find_protocol(arguments.words[0]);
  if (!protocol) return unknown_protocol(arguments.words[0]);
  ormel::Json record = record_of(*protocol);
  ormel::Json row = row_of(*protocol, record.get());
  ormel::Json copy{json_copy(record.get())};
  for (const char* secret : SECRETS) json_object_del(copy.get(), secret);
  json_object_del(copy.get(), "type");
  json_object_del(copy.get(), "enable");
  json_object_update_missing(row.get(), copy.get());
  return done("", std::move(row));
}

Result server_on(const Arguments& arguments) {
  const Protocol* protocol = find_protocol(arguments.words[0]);
  if (!protocol) return unknown_protocol(arguments.words[0]);
  if (protocol->server == ormel::WIREGUARD_SERVER_TYPE &&
      text_of(record_of(*protocol).get(), "server_ip").empty()) {
    return failed(Exit::Usage, "the WireGuard server has no address yet",
                  "ormelctl server set wireguard --name hub --address 198.18.7.1 --port 51820");
  }
  const bool needs_key =
      protocol->server == ormel::L2TP_SERVER_TYPE || protocol->server == ormel::DROVIK_SERVER_TYPE;
  if (needs_key && text_of(record_of(*protocol).get(), "psk").empty()) {
    return failed(Exit::Usage, "the " + protocol->name + " server has no pre-shared key yet",
                  "ormelctl server set " + protocol->name + " --psk-file -");
  }
  return change(*protocol, {}, true, arguments, "the " + protocol->name + " server runs");
}

Result server_off(const Arguments& arguments) {
  const Protocol* protocol = find_protocol(arguments.words[0]);
  if (!protocol) return unknown_protocol(arguments.words[0]);
  return change(*protocol, {}, false, arguments, "the " + protocol->name + " server is off");
}

Result server_set(const Arguments& arguments) {
  const Protocol* protocol = find_protocol(arguments.words[0]);
  if (!protocol) return unknown_protocol(arguments.words[0]);
  Form form;
  for (const Setting& row : SETTINGS) {
    if (!arguments.has(row.name)) continue;
    std::string value = arguments.value(row.name);
    if (row.secret) {
      const auto secret = read_secret(value);
      if (!secret)
        return failed(Exit::Failed, std::string("--") + row.name + ": " + value +
                                        " cannot be read, or is not one line");
      value = *secret;
    }
    if (row.truth && value != "yes" && value != "no")
      return failed(Exit::Usage, std::string("--") + row.name + " is yes or no");
    if (row.truth) value = value == "yes" ? "TRUE" : "FALSE";
    form.emplace_back(row.variable, std::string_view(row.name) == "name" ? encoded(value) : value);
  }
  if (arguments.has("dns")) {
    const std::string value = arguments.value("dns");
    form.emplace_back("enable_dns", value == "none" ? "FALSE" : "TRUE");
    if (value != "none") form.emplace_back("manual_dns", value);
  }
  if (form.empty())
    return failed(Exit::Usage, "nothing to change", "ormelctl server set openvpn --port 1194");
  const bool on = json_is_true(json_object_get(record_of(*protocol).get(), "enable"));
  return change(*protocol, std::move(form), on, arguments,
                "the " + protocol->name + " server has the new settings");
}

}  // namespace ormelctl
