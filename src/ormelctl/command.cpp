#include "ormelctl/command.h"

#include <algorithm>
#include <arpa/inet.h>
#include <charconv>
#include <climits>
#include <iterator>

#include "base/lines.h"
#include "ormel/base/error.h"
#include "ormelctl/advice.h"
#include "ormelctl/service.h"

namespace ormelctl {
namespace {

// clang-format off
constexpr Command COMMANDS[] = {
    // noun, verb, operands, options, reading, dangerous, help, example, function
    {"status",  "",        "[PROFILE|SERVER]", "check=", true, false, "Show servers, tunnels, gateway and daemons at a glance", "status", status},
    {"why",     "",        "[PROFILE|SERVER]", "", true, false, "Say why a tunnel or a server does not work, and what to do", "why office", why},
    {"doctor",  "",        "[PROFILE]", "bundle= progress=", true, false, "Find out what is wrong with this host, or step by step with a profile", "doctor office", doctor},
    {"profile", "list",    "", "", true,  false, "List the client profiles", "profile list", profile_list},
    {"profile", "show",    "PROFILE", "", true,  false, "Show one client profile", "profile show office", profile_show},
    {"profile", "add",     "PROTOCOL", "name= host= user= pass-file= psk-file= port= auth= enc= mask= reconnect= address= private-key-file= peer-key= endpoint= allowed= keepalive= dns=", false, false, "Add a client profile", "profile add pptp --name office --host vpn.example.org --user bob --pass-file -", profile_add},
    {"profile", "set",     "PROFILE", "name= host= user= pass-file= psk-file= port= auth= enc= mask= reconnect= address= private-key-file= peer-key= endpoint= allowed= keepalive= dns= yes", false, true, "Change a client profile; a tunnel that is up is disconnected", "profile set office --host vpn2.example.org", profile_set},
    {"profile", "rm",      "PROFILE", "yes", false, true,  "Disconnect and delete a client profile", "profile rm office --yes", profile_remove},
    {"profile", "up",      "PROFILE", "wait=", false, false, "Connect a tunnel, and wait for it with --wait", "profile up office --wait 30", profile_up},
    {"profile", "down",    "PROFILE", "", false, false, "Disconnect a tunnel", "profile down office", profile_down},
    {"profile", "import",  "FILE...", "report yes name= user= pass-file= ca= cert= key= tls-auth=", false, false, "Report what becomes of each line of OpenVPN and WireGuard profiles, with their key files or in archives, and store them", "profile import office.ovpn ca.crt --user bob --pass-file - --yes", profile_import},
    {"profile", "export",  "", "host=", true,  false, "Print the profile for clients of the OpenVPN server, with the public address or --host as the server's", "profile export", profile_export},
    {"server",  "list",    "", "", true,  false, "List the servers, and whether they run", "server list", server_list},
    {"server",  "show",    "PROTOCOL", "", true,  false, "Show the settings of one server, without its secrets", "server show openvpn", server_show},
    {"server",  "on",      "PROTOCOL", "", false, false, "Turn a server on", "server on wireguard", server_on},
    {"server",  "off",     "PROTOCOL", "yes", false, true,  "Turn a server off and end its sessions", "server off pptp --yes", server_off},
    {"server",  "set",     "PROTOCOL", "pool= max= port= proto= enc= auth= mss= psk-file= dns= interface= redirect= compress= name= address= mask= private-key-file= yes", false, true, "Change a server; one that is on is restarted", "server set openvpn --pool 10.8.0.0 --port 1194", server_set},
    {"peer",    "list",    "", "", true,  false, "List the devices of the WireGuard server", "peer list", peer_list},
    {"peer",    "add",     "NAME", "address= key= endpoint= keepalive= psk-file= host= all qr", false, false, "Add a device and print its configuration once, with --qr as a QR code too; --host is the public address without it", "peer add phone --host vpn.example.org", peer_add},
    {"peer",    "qr",      "NAME|INDEX", "host= all yes", false, true,  "Make a new key for a device and print its configuration and QR code once; the old configuration stops working", "peer qr phone --host vpn.example.org --yes", peer_qr},
    {"peer",    "limit",   "NAME|INDEX", "until= off on", false, false, "Keep a device out from a day on, at once with --off, or no more with --on or --until never", "peer limit phone --until 2030-12-31", peer_limit},
    {"peer",    "rm",      "NAME|INDEX", "yes", false, true,  "Delete a device", "peer rm phone --yes", peer_remove},
    {"address", "set",     "HOST", "", false, false, "Keep the public name or address of this host, which configurations and profiles get", "address set vpn.example.org", address_set},
    {"address", "rm",      "", "yes", false, true,  "Forget the public address", "address rm --yes", address_remove},
    {"address", "",        "", "", true,  false, "Show the public address of this host", "address", address_show},
    {"user",    "list",    "", "filter=", true,  false, "List users, their rights and until when, and how their logins went", "user list", user_list},
    {"user",    "grant",   "USER [PROTOCOL...]", "until= devices=", false, false, "Give a user further rights, until a date or without an end, and WireGuard devices of their own", "user grant bob openvpn,drovik --until 2030-12-31T18:00 --devices 2", user_grant},
    {"user",    "revoke",  "USER [PROTOCOL...]", "yes", false, true,  "Revoke rights, all and own devices without a protocol, and end the sessions", "user revoke bob pptp --yes", user_revoke},
    {"user",    "unlock",  "USER", "", false, false, "Unlock a user who is blocked for wrong passwords", "user unlock bob", user_unlock},
    {"user",    "policy",  "", "limit= time= enable=", false, false, "Show or change the policy on wrong passwords", "user policy --enable yes --limit 5 --time 30", user_policy},
    {"user",    "totp",    "USER [require|optional|reset|status]", "", false, false, "Require a second factor of a user, or reset one", "user totp bob require", user_totp},
    {"who",     "",        "", "", true,  false, "List who is connected to the servers", "who", who},
    {"kick",    "",        "USER|TARGET", "for= yes", false, true,  "End the sessions of a user, or one session, verify it, and keep the user out for a time", "kick bob --for 30m --yes", kick},
    {"hold",    "list",    "", "", true,  false, "List who is kept out of the servers", "hold list", hold_list},
    {"hold",    "lift",    "USER|DEVICE", "", false, false, "Let a user or a device in again", "hold lift bob", hold_lift},
    {"gateway", "show",    "", "", true,  false, "Show the default gateway policy and the tunnel in use", "gateway show", gateway_show},
    {"gateway", "set",     "PROFILE [PROFILE]", "snat= back=", false, false, "Send this host's traffic through a tunnel, with a second as fail-over", "gateway set office branch --back 5", gateway_set},
    {"gateway", "off",     "", "", false, false, "Send this host's traffic by its own network", "gateway off", gateway_off},
    {"guard",   "on",      "", "lan= ipv6= dns=", false, false, "Let nothing leave but by a tunnel while one is the default gateway", "guard on", guard_on},
    {"guard",   "strict",  "", "lan= ipv6= dns=", false, false, "Let nothing leave but by a tunnel, even while none is the default gateway", "guard strict", guard_strict},
    {"guard",   "off",     "", "", false, false, "Lift the guard", "guard off", guard_off},
    {"guard",   "pause",   "", "yes", false, true, "Let traffic out without a tunnel until the host starts again", "guard pause --yes", guard_pause},
    {"guard",   "test",    "", "yes", false, true, "Interrupt the tunnel for 20 seconds and count what leaves without it", "guard test --yes", guard_test},
    {"guard",   "",        "", "", true,  false, "Show the guard of the default gateway", "guard", guard_show},
    {"log",     "events",  "", "since= user= limit= follow", true, false, "Show the events of the service", "log events --since 1h", log_events},
    {"log",     "clients", "", "since= user= limit= follow", true, false, "Show the connections of client tunnels", "log clients --limit 20", log_clients},
    {"log",     "servers", "", "since= user= limit= follow", true, false, "Show the connections to the servers", "log servers --user bob", log_servers},
    {"log",     "program", "", "limit= follow", true, false, "Show the end of the program's log", "log program --limit 50", log_program},
    {"keeper",  "",        "", "", true,  false, "Show what is kept running, and what was started again", "keeper", keeper_show},
    {"notify",  "kinds",   "", "", true,  false, "List the kinds of events that somebody can be notified of", "notify kinds", notify_kinds},
    {"notify",  "list",    "", "", true,  false, "List who is notified of which events", "notify list", notify_list},
    {"notify",  "add",     "NAME", "url= to= events= secret-file=", false, false, "Notify a webhook, or a user by mail with --url mail:USER, of events", "notify add ops --url https://hooks.example.org/ormel --events 'failed lost back'", notify_add},
    {"notify",  "rm",      "NAME", "yes", false, true,  "Notify no more", "notify rm ops --yes", notify_remove},
    {"notify",  "test",    "NAME", "", false, false, "Send a test notification and say how it ended", "notify test ops", notify_test},
    {"audit",   "verify",  "", "", true,  false, "Verify that no entry of the audit trail has been altered or removed", "audit verify", audit_verify},
    {"audit",   "",        "", "since= user= limit=", true, false, "Show who changed what, and from where", "audit --since 1h", audit_list},
    {"metrics", "",        "", "textfile= users", true, false, "Print figures for a monitoring system in the format of Prometheus, or write them to a file", "metrics --textfile /var/lib/prometheus/node-exporter/ormel.prom", metrics},
    {"token",   "list",    "", "", true,  false, "List the tokens by which other programs use the web interface's routes", "token list", token_list},
    {"token",   "add",     "NAME", "scope= expires=", false, false, "Make a token and print it once; --scope is metrics, read or admin", "token add prometheus --scope metrics --expires 365d", token_add},
    {"token",   "rm",      "NAME|ID", "yes", false, true, "Remove a token, which becomes invalid at once", "token rm prometheus --yes", token_remove},
    {"cert",    "list",    "", "", true,  false, "List all certificates, and how many days each is valid", "cert list", cert_list},
    {"cert",    "renew",   "server", "yes", false, true, "Renew the OpenVPN server's certificate with the same authority, and restart the server; profiles remain valid", "cert renew server --yes", cert_renew},
    {"cert",    "rotate",  "[authority]", "overlap= advance cancel yes", false, true, "Make a new authority for the OpenVPN server, which signs after --overlap; take the next step now with --advance, which restarts the server, or forget the new one with --cancel", "cert rotate authority --overlap 60d --yes", cert_rotate},
    {"cert",    "",        "", "", true,  false, "The same as cert list", "cert", cert_list},
    {"undo",    "list",    "", "", true,  false, "List the changes that can be taken back, the newest first", "undo list", undo_list},
    {"undo",    "",        "[NUMBER]", "yes", false, true, "Restore the state before the last change, or before that change and all after it", "undo --yes", undo},
    {"confirm", "",        "[CODE]", "yes", false, false, "Keep a change that would go back by itself", "confirm KxpQbTrw", confirm},
    {"revert",  "",        "", "yes", false, true, "Let a change that waits for its confirmation go back now", "revert --yes", revert},
    {"pending", "",        "", "", true, false, "Show the change that waits for its confirmation", "pending", pending},
    {"export",  "",        "", "secrets", true, false, "Print the configuration as a document, which says {\"kept\": true} for a secret unless --secrets is given", "export >site.json", site_export},
    {"diff",    "",        "FILE", "", true, false, "Show how the configuration differs from a document", "diff site.json", site_diff},
    {"apply",   "",        "FILE", "prune dry-run", false, false, "Make the configuration as in a document; --prune deletes what it does not name", "apply site.json --dry-run", site_apply},
    {"backup",  "",        "FILE", "passphrase-file=", false, false, "Write all settings, keys and rights to one encrypted file", "backup /root/office.ormel --passphrase-file -", backup},
    {"restore", "",        "FILE", "passphrase-file= only= as-copy dry-run", false, false, "Put the state of a backup in the place of this host's, or parts of it with --only", "restore /root/office.ormel --passphrase-file - --dry-run", restore},
    {"sdwan",   "status",  "", "", true,  false, "Show the membership of the SD-WAN", "sdwan status", sdwan_status},
    {"sdwan",   "join",    "", "result-file= organization= region=", false, false, "Join the SD-WAN with the result of the provider's login", "sdwan join --result-file - --organization Mine", sdwan_join},
    {"sdwan",   "leave",   "", "yes", false, true,  "Leave the SD-WAN", "sdwan leave --yes", sdwan_leave},
};
// clang-format on

constexpr bool all_explained() {
  for (const Command& row : COMMANDS) {
    if (!*row.help || !*row.example) return false;
  }
  return true;
}
static_assert(all_explained(), "each command has its help and an example");

constexpr const char* GLOBAL_OPTIONS[] = {
    "--output=", "--json", "--no-color", "--timeout=", "--confirm=", "--dry-run", "--help"};
constexpr size_t FAR = 3;  // edits beyond which a name is no suggestion
constexpr int LAST_PORT = 65535;

std::string name_of(const Command& command) {
  return std::string(command.noun) + (*command.verb ? " " : "") + command.verb;
}

std::string closest(const std::string& name) {
  const Command* best = nullptr;
  size_t least = FAR;
  for (const Command& row : COMMANDS) {
    const size_t edits = edit_distance(name, name_of(row));
    if (edits < least) {
      least = edits;
      best = &row;
    }
  }
  return best ? name_of(*best) : std::string();
}

std::vector<std::string> split(std::string_view text) {
  std::vector<std::string> words;
  for (size_t at = 0; at < text.size();) {
    const size_t end = std::min(text.find(' ', at), text.size());
    if (end > at) words.emplace_back(text.substr(at, end - at));
    at = end + 1;
  }
  return words;
}

// The option of a command by its name: "name=" or "name"; empty without one.
std::string option_of(const Command& command, const std::string& name) {
  for (const std::string& word : split(command.options)) {
    if (word == name || word == name + '=') return word;
  }
  return {};
}

bool is_number(const std::string& text, int least, int most) {
  int number = -1;
  return fenro::parse_number(text, number) && number >= least && number <= most;
}

// The range of such a number is the program's to check: it differs between protocols.
bool is_whole(const std::string& text) {
  return is_number(text, 0, INT_MAX);
}

bool is_address(const std::string& text) {
  in_addr address{};
  return inet_pton(AF_INET, text.c_str(), &address) == 1;
}

bool is_endpoint(const std::string& text) {
  const size_t colon = text.rfind(':');
  return colon != std::string::npos && colon != 0 &&
         is_number(text.substr(colon + 1), 1, LAST_PORT);
}

// What an option takes wherever it is found, where the program itself would take anything or would
// not say what.
struct Rule {
  std::string_view option;
  bool (*holds)(const std::string& value);
  const char* text;
};
constexpr Rule RULES[] = {
    {"address", is_address, "an IPv4 address"},
    {"pool", is_address, "an IPv4 address"},
    {"keepalive", [](const std::string& value) { return is_number(value, 0, 65535); },
     "0 to 65535 seconds"},
    {"port", is_whole, "a whole number"},
    {"max", is_whole, "a whole number"},
    {"mss", is_whole, "a whole number of bytes"},
    {"endpoint", is_endpoint, "HOST:PORT, the port being 1 to 65535"},
    {"back", [](const std::string& value) { return value == "never" || is_whole(value); },
     "a number of minutes, or never"},
    {"snat", [](const std::string& value) { return value == "yes" || value == "no"; }, "yes or no"},
    {"mask", [](const std::string& value) { return is_number(value, 0, 32) || is_address(value); },
     "0 to 32, or a netmask"},
};

std::string broken_rule(const Arguments& arguments) {
  for (const Rule& rule : RULES) {
    const auto given = arguments.options.find(std::string(rule.option));
    if (given != arguments.options.end() && !rule.holds(given->second))
      return "--" + given->first + " takes " + rule.text;
  }
  return {};
}

std::string verbs_of(const std::string& noun) {
  std::string text;
  for (const Command& row : COMMANDS) {
    if (noun == row.noun) text += (text.empty() ? "" : ", ") + name_of(row);
  }
  return text;
}

std::vector<std::string> nouns() {
  std::vector<std::string> names;
  for (const Command& row : COMMANDS) names.emplace_back(row.noun);
  return names;
}

// Of an option that the command does not have.
std::string unknown_option(const Command& command, const std::string& name,
                           const std::string& shown) {
  std::vector<std::string> known;
  for (const std::string& option : split(command.options))
    known.push_back(option.substr(0, option.find('=')));
  const std::string meant = closest_name(name, known);
  return "unknown option " + shown + (meant.empty() ? "" : "; did you mean --" + meant + '?');
}

// How many operands a command takes, by its text: "[X]" may be missing, "X..." may be repeated.
struct Count {
  size_t least = 0, most = 0;
};
Count operand_count(const Command& command) {
  Count count;
  for (const std::string& word : split(command.operands)) {
    if (!word.starts_with('[')) ++count.least;
    count.most = word.find("...") != std::string::npos ? SIZE_MAX : count.most + 1;
  }
  return count;
}

}  // namespace

std::string Arguments::value(const std::string& name, const std::string& fallback) const {
  const auto found = options.find(name);
  return found == options.end() ? fallback : found->second;
}

long Arguments::seconds(const std::string& name, long fallback) const {
  if (!has(name)) return fallback;
  const std::string text = value(name);
  constexpr long MOST = 366L * 86400;
  long number = 0;
  const auto [end, failure] = std::from_chars(text.data(), text.data() + text.size(), number);
  const std::string_view unit(end, static_cast<size_t>(text.data() + text.size() - end));
  const long factor = unit.empty() || unit == "s" ? 1
                      : unit == "m"               ? 60
                      : unit == "h"               ? 3600
                      : unit == "d"               ? 86400
                                                  : 0;
  return failure != std::errc{} || factor == 0 || number < 0 || number > MOST / factor
             ? -1
             : number * factor;
}

Result failed(Exit exit, std::string reason, std::string advice) {
  return {.exit = exit, .reason = std::move(reason), .advice = std::move(advice)};
}

Result failed(int error, const std::string& detail) {
  const Exit exit = error == ormel::ERR_CONFIGURE_INDEX ? Exit::NotFound : Exit::Failed;
  return {
      .exit = exit,
      .error = error,
      .reason = detail.empty() ? ormel::get_error_message(static_cast<unsigned>(error)) : detail};
}

Result locked_out() {
  return failed(Exit::TimedOut, "another change is still running", "try again when it has ended");
}

Result refused(int error, const std::string& reason, const Arguments& arguments,
               const std::function<const char*(std::string_view)>& variable) {
  for (const auto& [option, value] : arguments.options) {
    const char* name = variable(option);
    if (reason != value && (!name || reason != name)) continue;
    const bool malformed = error == ormel::ERR_VALUE;
    Result result = failed(malformed ? Exit::Usage : Exit::Failed,
                           "--" + option + " does not take " +
                               (option.ends_with("-file") ? "what is in " : "") +
                               (value.empty() ? "an empty value" : value) +
                               (malformed ? "" : ": " + failed(error).reason));
    result.error = error;
    return result;
  }
  return failed(error, reason);
}

Result done(std::string message, ormel::Json data, Columns columns) {
  return {.data = std::move(data), .columns = std::move(columns), .message = std::move(message)};
}

std::span<const Command> commands() {
  return COMMANDS;
}

const Command* find_command(std::vector<std::string>& words, std::string& suggestion) {
  if (words.empty()) return nullptr;
  for (const Command& row : COMMANDS) {
    const bool alone = !*row.verb;
    if (words[0] != row.noun || (!alone && (words.size() < 2 || words[1] != row.verb))) continue;
    words.erase(words.begin(), words.begin() + (alone ? 1 : 2));
    return &row;
  }
  suggestion = closest(words.size() > 1 ? words[0] + ' ' + words[1] : words[0]);
  if (suggestion.empty()) suggestion = verbs_of(words[0]);
  if (suggestion.empty()) suggestion = verbs_of(closest_name(words[0], nouns()));
  return nullptr;
}

std::string parse_arguments(const Command& command, const std::vector<std::string>& words,
                            Arguments& out) {
  bool only_operands = false;
  for (size_t i = 0; i < words.size(); ++i) {
    const std::string& word = words[i];
    if (only_operands || word == "-" || !word.starts_with('-')) {
      out.words.push_back(word);
      continue;
    }
    if (word == "--") {
      only_operands = true;
      continue;
    }
    const size_t equals = word.find('=');
    const std::string name = word.starts_with("--")
                                 ? word.substr(2, equals == std::string::npos ? equals : equals - 2)
                             : word == "-n" ? "limit"
                                            : word;
    const std::string option = option_of(command, name);
    if (option.empty()) return unknown_option(command, name, word.substr(0, equals));
    if (!option.ends_with('=')) {
      if (equals != std::string::npos) return "--" + name + " takes no value";
      out.options[name] = "";
    } else if (equals != std::string::npos) {
      out.options[name] = word.substr(equals + 1);
    } else if (i + 1 < words.size()) {
      out.options[name] = words[++i];
    } else {
      return "--" + name + " needs a value";
    }
  }
  const Count count = operand_count(command);
  if (out.words.size() < count.least) return std::string("missing: ") + command.operands;
  if (out.words.size() > count.most) return "unexpected: " + out.words[count.most];
  return broken_rule(out);
}

size_t edit_distance(std::string_view a, std::string_view b) {
  std::vector<std::vector<size_t>> edits(a.size() + 1, std::vector<size_t>(b.size() + 1));
  for (size_t i = 0; i <= a.size(); ++i) {
    for (size_t j = 0; j <= b.size(); ++j) {
      if (i == 0 || j == 0) {
        edits[i][j] = i + j;
        continue;
      }
      const size_t replaced = edits[i - 1][j - 1] + (a[i - 1] == b[j - 1] ? 0 : 1);
      edits[i][j] = std::min({edits[i - 1][j] + 1, edits[i][j - 1] + 1, replaced});
      const bool swapped = i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1];
      if (swapped) edits[i][j] = std::min(edits[i][j], edits[i - 2][j - 2] + 1);
    }
  }
  return edits[a.size()][b.size()];
}

std::string overview() {
  std::string text =
      "ormelctl [--output table|json|tsv] [--json] [--no-color] [--timeout TIME] [--confirm TIME] "
      "[--dry-run] COMMAND [ARGUMENT...]\n\n"
      "Manages the VPN service of this host. PROFILE is a name, or PROTOCOL/INDEX as in openvpn/3; "
      "PROTOCOL is one of\n" +
      protocol_names() +
      ". \"ormelctl COMMAND --help\" explains a command.\n"
      "A command that changes something shows with --dry-run what it would do; with --confirm 90s "
      "its\nchange goes back unless it is confirmed.\n\n";
  for (const Command& row : COMMANDS) {
    std::string line = "  " + name_of(row);
    line.resize(std::max<size_t>(line.size() + 1, 19), ' ');
    text += line + row.help + '\n';
  }
  return text +
         "\nExit status: 0 done, 1 failed, 2 wrong usage, 3 not found, 4 not root, 5 time ran out, "
         "6 state differs.\n";
}

std::string describe(const Command& command) {
  std::string text = "ormelctl " + name_of(command);
  if (*command.operands) text += std::string(" ") + command.operands;
  for (const std::string& option : split(command.options)) {
    text += option.ends_with('=') ? " [--" + option.substr(0, option.size() - 1) + " VALUE]"
                                  : " [--" + option + "]";
  }
  return text + "\n\n" + command.help + ".\n\nExample:\n  ormelctl " + command.example + '\n';
}

std::string manual() {
  std::string text;
  for (const Command& row : COMMANDS) {
    text += (text.empty() ? "*" : "\n*") + name_of(row) + '*';
    for (const std::string& operand : split(row.operands)) text += ' ' + operand;
    for (const std::string& option : split(row.options)) {
      const bool takes = option.ends_with('=');
      text += " [*--" + option.substr(0, option.size() - (takes ? 1 : 0)) +
              (takes ? "* _VALUE_]" : "*]");
    }
    text += std::string("\n\t") + row.help + ".\n";
  }
  return text;
}

std::string complete(const std::vector<std::string>& words) {
  const std::string begin = words.empty() ? "" : words.back();
  std::vector<std::string> earlier(words.begin(), words.empty() ? words.end() : words.end() - 1);
  std::vector<std::string> candidates;
  std::string ignored;
  if (const Command* command = find_command(earlier, ignored); command) {
    for (const std::string& option : split(command->options)) candidates.push_back("--" + option);
    if (std::string_view(command->operands).find("PROTOCOL") != std::string_view::npos) {
      for (const Protocol& row : protocols()) candidates.push_back(row.name);
    }
  } else {
    for (const Command& row : COMMANDS) {
      if (words.size() <= 1) candidates.emplace_back(row.noun);
      if (words.size() == 2 && words[0] == row.noun) candidates.emplace_back(row.verb);
    }
    for (const char* option : GLOBAL_OPTIONS) candidates.emplace_back(option);
  }
  std::sort(candidates.begin(), candidates.end());
  candidates.erase(std::unique(candidates.begin(), candidates.end()), candidates.end());
  std::string out;
  for (const std::string& candidate : candidates) {
    if (!candidate.empty() && candidate.starts_with(begin)) out += candidate + '\n';
  }
  return out;
}

}  // namespace ormelctl
