#include "ormel/actions/audit_state.h"

#include <algorithm>
#include <charconv>
#include <optional>
#include <span>
#include <string_view>
#include <tuple>
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

struct FieldPair {
  Fields before, after;
};

struct Section {
  std::string_view name, body;  // the lines before the first section have no name
  bool operator==(const Section&) const = default;
};
using Sections = std::vector<Section>;

std::optional<std::string_view> section_name(std::string_view line) {
  if (line.find('[') == std::string_view::npos) return {};
  line = fenro::trimmed(line);
  if (!line.starts_with('[') || !line.ends_with(']')) return {};
  return line.substr(1, line.size() - 2);
}

// In the order of their names; of those with one name in that of the file, as the last value of a
// key counts.
Sections sections_of(std::string_view text) {
  Sections sections{{{}, text.substr(0, 0)}};
  while (!text.empty()) {
    const std::string_view line = fenro::take_whole_line(text);
    std::string_view& body = sections.back().body;
    if (const auto name = section_name(line))
      sections.push_back({*name, text.substr(0, 0)});
    else
      body = {body.data(), body.size() + line.size()};
  }
  std::ranges::stable_sort(sections, {}, &Section::name);
  return sections;
}

void read_section(const Section& section, const std::string& area, Fields& out) {
  std::string_view rest = section.body;
  while (!rest.empty()) {
    const std::string_view line = fenro::take_line(rest);
    const size_t equals = line.find('=');
    if (equals == std::string_view::npos) continue;
    const std::string_view key = fenro::trimmed(line.substr(0, equals));
    const std::string_view value = fenro::trimmed(line.substr(equals + 1));
    if (!is_setting(section.name, key)) continue;
    out[joined(section.name.empty() ? "" : joined(area, section.name), key)] =
        is_one_of(ENCODED_KEYS, key) ? percent_decoded(value) : std::string(value);
  }
}

// Takes those of one name off the front.
std::span<const Section> take_named(std::string_view name, std::span<const Section>& sections) {
  const auto end = std::ranges::find_if(
      sections, [name](const Section& section) { return section.name != name; });
  const auto count = static_cast<size_t>(end - sections.begin());
  const std::span<const Section> taken = sections.first(count);
  sections = sections.subspan(count);
  return taken;
}

// Of a hundred profiles an action changes one or two: the others are compared as text alone.
void read_ini(const std::string& before, const std::string& after, const std::string& area,
              FieldPair& out) {
  const Sections all_before = sections_of(before), all_after = sections_of(after);
  std::span<const Section> rest_before = all_before, rest_after = all_after;
  while (!rest_before.empty() || !rest_after.empty()) {
    const std::string_view name =
        rest_after.empty() ||
                (!rest_before.empty() && rest_before.front().name < rest_after.front().name)
            ? rest_before.front().name
            : rest_after.front().name;
    const auto from = take_named(name, rest_before), to = take_named(name, rest_after);
    if (std::ranges::equal(from, to)) continue;
    for (const Section& section : from) read_section(section, area, out.before);
    for (const Section& section : to) read_section(section, area, out.after);
  }
}

std::string value_of(const json_t* value) {
  if (json_is_string(value)) return {json_string_value(value), json_string_length(value)};
  const CString text{json_dumps(value, JSON_COMPACT | JSON_ENCODE_ANY)};
  return text ? text.get() : "";
}

void flatten(const std::string& field, json_t* value, Fields& out) {
  const char* name = nullptr;
  json_t* member = nullptr;
  if (!json_is_object(value)) out[field] = value_of(value);
  json_object_foreach(value, name, member) flatten(joined(field, name), member, out);
}

void read_json(const std::string& text, const std::string& area, Fields& out) {
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

void read_rights(const std::string& text, const std::string& area, Fields& out) {
  std::string_view rest = text;
  while (!rest.empty()) {
    std::string_view line = fenro::trimmed(fenro::take_line(rest));
    const std::string_view user = fenro::take_until(line, ':');
    if (!user.empty()) out[joined(area, user)] = words_of(rights_in(line));
  }
}

void read_hold(const json_t* hold, const std::string& area, Fields& out) {
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

void read_holds(const std::string& text, const std::string& area, Fields& out) {
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

void read_grants(const std::string& text, const std::string& area, Fields& out) {
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
void read_tokens(const std::string& text, const std::string& area, Fields& out) {
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
void read_word(const std::string& text, const std::string& area, Fields& out) {
  if (const std::string_view word = fenro::trimmed(text); !word.empty()) out[area] = word;
}

using Reader = void (*)(const std::string& text, const std::string& area, Fields& out);

template <Reader Read>
void in_both(const std::string& before, const std::string& after, const std::string& area,
             FieldPair& out) {
  Read(before, area, out.before);
  Read(after, area, out.after);
}

struct Source {
  const char* path;
  const char* area;  // begins its fields
  // Adds the fields of two texts that differ, those that are the same in both or not.
  void (*read)(const std::string& before, const std::string& after, const std::string& area,
               FieldPair& out);
};
constexpr Source SOURCES[] = {
    {"/etc/config/vpn.conf", "", read_ini},
    {"/etc/config/ormel/wireguard/server_peers.conf", "peers", read_ini},
    {"/etc/config/ormel/guard.conf", "", read_ini},
    {"/etc/config/ormel/keeper.conf", "", read_ini},
    {"/etc/config/ormel/pelmar.conf", "sdwan", read_ini},
    {"/etc/config/ormel/public_address", "address", in_both<read_word>},
    {"/etc/openvpn/keys/rotation", "rotation", read_ini},
    {"/etc/config/vpn_user_ex.conf", "rights", in_both<read_rights>},
    {"/etc/config/vpn_block.conf", "block", in_both<read_json>},
    {"/etc/config/vpn_options.conf", "", in_both<read_json>},
    {"/var/lib/ormel/holds.json", "hold", in_both<read_holds>},
    {"/var/lib/ormel/grants.json", "grant", in_both<read_grants>},
    {"/etc/config/ormel/tokens.json", "tokens", in_both<read_tokens>},
};
// Profiles with their keys, and the OpenVPN server's certificates.
constexpr const char* FOLDERS[] = {"/etc/config/openvpn/clients", "/etc/openvpn/keys"};

void read_folder(const std::string& root, const std::string& folder, Fields& out) {
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

void add_defaults(TYPE type, const std::string& section, Fields& out) {
  const auto record = config::make_record(type, 0);
  for (const config::FieldTable& table : record->fields()) {
    for (const config::Field& row : table) out[joined(section, row.key)] = default_of(row);
  }
}

// What holds where a file does not say: the first save of a file writes it all.
Fields make_defaults() {
  Fields all;
  for (const TunnelFacts& facts : TUNNELS) {
    add_defaults(facts.server, facts.section, all);
    add_defaults(facts.client, facts.client_section, all);
  }
  flatten("", GlobalConfig().get_tmpl().get(), all);
  return all;
}

std::string default_in_force(const std::string& field) {
  static const Fields DEFAULTS = make_defaults();
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

const std::string* value_in(const Fields& fields, const std::string& field) {
  const auto found = fields.find(field);
  return found == fields.end() ? nullptr : &found->second;
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
  for (size_t i = 0; i < std::size(SOURCES); ++i)  // one that is missing is as one without a field
    std::ignore = system::read_file((root + SOURCES[i].path).c_str(), state.texts.emplace_back());
  for (const char* folder : FOLDERS) read_folder(root, folder, state.key_files);
  return state;
}

std::vector<Change> changes_between(const State& before, const State& after) {
  FieldPair fields{before.key_files, after.key_files};
  for (size_t i = 0; i < std::size(SOURCES); ++i) {
    if (before.texts[i] != after.texts[i])
      SOURCES[i].read(before.texts[i], after.texts[i], SOURCES[i].area, fields);
  }
  std::vector<Change> changes;
  Fields all = fields.before;
  all.insert(fields.after.begin(), fields.after.end());
  for (const auto& [field, value] : all)
    compare(field, value_in(fields.before, field), value_in(fields.after, field), changes);
  return changes;
}

}  // namespace ormel::audit
