#include "ormel/actions/audit_state.h"

#include <algorithm>
#include <charconv>
#include <string_view>
#include <variant>

#include "base/base64.h"
#include "base/lines.h"
#include "base/privilege_line.h"
#include "base/secret_names.h"
#include "base/tunnel.h"
#include "ormel/actions/gateway_policy.h"
#include "ormel/actions/tunnel_state.h"
#include "ormel/base/crypto.h"
#include "ormel/base/file.h"
#include "ormel/base/handle.h"
#include "ormel/base/text.h"
#include "ormel/config/fields.h"

namespace ormel::audit {

namespace {

// Keys that scripts and the program write on their own, or that follow from others.
constexpr std::string_view OWN_KEYS[] = {"Index",     ENTRANCE_LINE,           "dbversion",
                                         "peers_num", "ovpn_config_migration", "max_index"};
constexpr std::string_view ENCODED_KEYS[] = {"Profile File", "Client name", "Server name", "name"};

template <size_t Size>
bool is_one_of(const std::string_view (&list)[Size], std::string_view key) {
  return std::ranges::find(list, key) != std::end(list);
}

bool is_setting(std::string_view section, std::string_view key) {
  return !is_one_of(OWN_KEYS, key) && !key.ends_with(RULES_LINE) &&
         !config::is_live_key(section, key);
}

std::string joined(const std::string& area, std::string_view name) {
  return (area.empty() ? "" : area + '/') + std::string(name);
}

void read_ini(const std::string& text, const std::string& area, State& out) {
  std::string_view rest = text;
  std::string_view section;
  while (!rest.empty()) {
    const std::string_view line = fenro::trimmed(fenro::take_line(rest));
    if (line.starts_with('[') && line.ends_with(']')) {
      section = line.substr(1, line.size() - 2);
      continue;
    }
    const size_t equals = line.find('=');
    if (equals == std::string_view::npos) continue;
    const std::string_view key = fenro::trimmed(line.substr(0, equals));
    const std::string_view value = fenro::trimmed(line.substr(equals + 1));
    if (!is_setting(section, key)) continue;
    out[joined(section.empty() ? "" : joined(area, section), key)] =
        is_one_of(ENCODED_KEYS, key) ? percent_decoded(value) : std::string(value);
  }
}

std::string value_of(const json_t* value) {
  if (json_is_string(value)) return {json_string_value(value), json_string_length(value)};
  const CString text{json_dumps(value, JSON_COMPACT | JSON_ENCODE_ANY)};
  return text ? text.get() : "";
}

void flatten(const std::string& field, json_t* value, State& out) {
  const char* name = nullptr;
  json_t* member = nullptr;
  if (!json_is_object(value)) out[field] = value_of(value);
  json_object_foreach(value, name, member) flatten(joined(field, name), member, out);
}

void read_json(const std::string& text, const std::string& area, State& out) {
  const Json document{json_loadb(text.data(), text.size(), 0, nullptr)};
  if (document) flatten(area, document.get(), out);
}

// "pptp,openvpn" for the rights of a user's line.
std::string words_of(int rights) {
  std::string words;
  for (const TunnelFacts& facts : TUNNELS) {
    if ((rights & facts.server) != 0)
      words += (words.empty() ? "" : ",") + to_lower(facts.log_name);
  }
  return words.empty() ? "none" : words;
}

void read_rights(const std::string& text, const std::string& area, State& out) {
  std::string_view rest = text;
  while (!rest.empty()) {
    std::string_view line = fenro::trimmed(fenro::take_line(rest));
    const std::string_view user = fenro::take_until(line, ':');
    if (!user.empty()) out[joined(area, user)] = words_of(rights_in(line));
  }
}

void read_hold(const json_t* hold, const std::string& area, State& out) {
  const auto text = [hold](const char* member) {
    const char* const value = json_string_value(json_object_get(hold, member));
    return std::string(value ? value : "");
  };
  std::string name;
  if (!fenro::parse_base64(text("name"), name)) return;
  const bool limit = text("kind") == "limit";
  const json_t* const moment = json_object_get(hold, limit ? "since" : "until");
  out[joined(area, text("kind")) + '/' + name] =
      (limit ? "since " : "until ") + clock_text(json_integer_value(moment));
}

void read_holds(const std::string& text, const std::string& area, State& out) {
  const Json document{json_loadb(text.data(), text.size(), 0, nullptr)};
  size_t at = 0;
  const json_t* hold = nullptr;
  json_array_foreach(json_object_get(document.get(), "holds"), at, hold) read_hold(hold, area, out);
}

std::string decoded(const json_t* object, const char* member) {
  const char* const value = json_string_value(json_object_get(object, member));
  std::string text;
  return value && fenro::parse_base64(value, text) ? text : std::string();
}

void read_grants(const std::string& text, const std::string& area, State& out) {
  const Json document{json_loadb(text.data(), text.size(), 0, nullptr)};
  size_t at = 0;
  json_t* row = nullptr;
  json_array_foreach(json_object_get(document.get(), "grants"), at, row) {
    const std::string user = joined(area, decoded(row, "user"));
    const json_int_t devices = json_integer_value(json_object_get(row, "devices"));
    if (devices > 0) out[user + "/devices"] = std::to_string(devices);
    const char* server = nullptr;
    json_t* until = nullptr;
    json_object_foreach(json_object_get(row, "until"), server, until)
        out[user + '/' + words_of(to_int(server))] =
            "until " + clock_text(json_integer_value(until));
  }
  json_array_foreach(json_object_get(document.get(), "devices"), at, row) {
    const char* const key = json_string_value(json_object_get(row, "key"));
    if (key) out[joined(area, key) + "/owner"] = decoded(row, "owner");
  }
}

// The rights of a token. Its latest use is no setting.
void read_tokens(const std::string& text, const std::string& area, State& out) {
  const Json document{json_loadb(text.data(), text.size(), 0, nullptr)};
  size_t at = 0;
  const json_t* row = nullptr;
  json_array_foreach(json_object_get(document.get(), "tokens"), at, row) {
    const char* const name = json_string_value(json_object_get(row, "name"));
    const char* const scope = json_string_value(json_object_get(row, "scope"));
    if (!name || !scope) continue;
    out[joined(area, name)] = std::string(scope) + " until " +
                              clock_text(json_integer_value(json_object_get(row, "expires")));
  }
}

// A file of one word.
void read_word(const std::string& text, const std::string& area, State& out) {
  if (const std::string_view word = fenro::trimmed(text); !word.empty()) out[area] = word;
}

struct Source {
  const char* path;
  const char* area;  // begins its fields
  void (*read)(const std::string& text, const std::string& area, State& out);
};
constexpr Source SOURCES[] = {
    {"/etc/config/vpn.conf", "", read_ini},
    {"/etc/config/ormel/wireguard/server_peers.conf", "peers", read_ini},
    {"/etc/config/ormel/guard.conf", "", read_ini},
    {"/etc/config/ormel/keeper.conf", "", read_ini},
    {"/etc/config/ormel/pelmar.conf", "sdwan", read_ini},
    {"/etc/config/ormel/public_address", "address", read_word},
    {"/etc/openvpn/keys/rotation", "rotation", read_ini},
    {"/etc/config/vpn_user_ex.conf", "rights", read_rights},
    {"/etc/config/vpn_block.conf", "block", read_json},
    {"/etc/config/vpn_options.conf", "", read_json},
    {"/var/lib/ormel/holds.json", "hold", read_holds},
    {"/var/lib/ormel/grants.json", "grant", read_grants},
    {"/etc/config/ormel/tokens.json", "tokens", read_tokens},
};
// Profiles with their keys, and the OpenVPN server's certificates.
constexpr const char* FOLDERS[] = {"/etc/config/openvpn/clients", "/etc/openvpn/keys"};

void read_folder(const std::string& root, const std::string& folder, State& out) {
  const Dir listing{opendir((root + folder).c_str())};
  while (const dirent* const entry = listing ? readdir(listing.get()) : nullptr) {
    const std::string path = folder + '/' + entry->d_name;
    std::string content;
    if (entry->d_name[0] != '.' && system::read_file((root + path).c_str(), content))
      out[path] = openssl::sha256(content);
  }
}

bool is_secret(const std::string& field) {
  const std::string_view key = std::string_view(field).substr(field.rfind('/') + 1);
  const bool named_by_people = field.starts_with("rights/") || field.starts_with("hold/") ||
                               field.starts_with("grant/") || field.starts_with("tokens/");
  return field.starts_with('/') || (!named_by_people && fenro::is_secret_name(key));
}

// A value of the table of fields as the file has it.
std::string default_of(const config::Field& row) {
  if (std::holds_alternative<std::string config::BaseConfig::*>(row.member)) return row.text;
  const bool word =
      std::holds_alternative<bool config::BaseConfig::*>(row.member) && !row.is(config::AS_NUMBER);
  return word ? (row.number != 0 ? "TRUE" : "FALSE") : std::to_string(row.number);
}

void add_defaults(TYPE type, const std::string& section, State& out) {
  const auto record = config::make_record(type, 0);
  for (const config::FieldTable& table : record->fields()) {
    for (const config::Field& row : table) out[joined(section, row.key)] = default_of(row);
  }
}

// What holds where a file does not say: the first save of a file writes it all.
State make_defaults() {
  State all;
  for (const TunnelFacts& facts : TUNNELS) {
    add_defaults(facts.server, facts.section, all);
    add_defaults(facts.client, facts.client_section, all);
  }
  flatten("", GlobalConfig().get_tmpl().get(), all);
  return all;
}

std::string default_in_force(const std::string& field) {
  static const State DEFAULTS = make_defaults();
  const std::string section = field.substr(0, field.find('/'));
  const std::string kind = section.substr(0, section.find_last_not_of("0123456789") + 1);
  const auto found = DEFAULTS.find(kind + field.substr(section.size()));
  return found == DEFAULTS.end() ? std::string() : found->second;
}

// A field that comes or goes with the value that it has anyway has not changed.
void compare(const std::string& field, const std::string* from, const std::string* to,
             std::vector<Change>& changes) {
  static const std::string NONE;
  if (!from && *to == default_in_force(field)) return;
  if (!to && *from == default_in_force(field)) return;
  if (from && to && *from == *to) return;
  const bool secret = is_secret(field);
  changes.push_back({field, secret || !from ? NONE : *from, secret ? "changed" : to ? *to : NONE});
}

const std::string* value_in(const State& state, const std::string& field) {
  const auto found = state.find(field);
  return found == state.end() ? nullptr : &found->second;
}

}  // namespace

std::string percent_decoded(std::string_view text) {
  std::string out;
  while (!text.empty()) {
    unsigned byte = 0;
    const bool encoded =
        text.front() == '%' && text.size() > 2 &&
        std::from_chars(text.data() + 1, text.data() + 3, byte, 16).ptr == text.data() + 3;
    out += encoded ? static_cast<char>(byte) : text.front();
    text.remove_prefix(encoded ? 3 : 1);
  }
  return out;
}

State read_state(const std::string& root) {
  State state;
  for (const Source& source : SOURCES) {
    std::string text;
    if (system::read_file((root + source.path).c_str(), text))
      source.read(text, source.area, state);
  }
  for (const char* folder : FOLDERS) read_folder(root, folder, state);
  return state;
}

std::vector<Change> changes_between(const State& before, const State& after) {
  std::vector<Change> changes;
  State fields = before;
  fields.insert(after.begin(), after.end());
  for (const auto& [field, value] : fields)
    compare(field, value_in(before, field), value_in(after, field), changes);
  return changes;
}

}  // namespace ormel::audit
