#include "ormel/drivers/wireguard/conf_file.h"

#include <algorithm>
#include <iterator>
#include <string_view>

#include "ormel/base/error.h"
#include "ormel/base/lines.h"
#include "ormel/base/text.h"
#include "ormel/drivers/wireguard/key.h"

namespace ormel::wireguard {

namespace {

using report::Fate;
using report::Line;
using report::Report;

constexpr const char* INTERFACE = "interface";
constexpr const char* PEER = "peer";

// A setting of the file, and the option that takes it.
struct Key {
  const char* section;
  const char* name;  // in small letters
  const char* option;
  bool key;            // a key of WireGuard
  bool secret;         // not shown
  bool first_ipv4;     // a list of which one address counts
  const char* needed;  // as the report calls what is missing; null for one that may be
};

constexpr Key KEYS[] = {
    {INTERFACE, "privatekey", "client_pri_key", true, true, false, "private-key"},
    {INTERFACE, "address", "client_ip", false, false, true, "address"},
    {INTERFACE, "listenport", "port", false, false, false, nullptr},
    {INTERFACE, "dns", "manual_dns", false, false, true, nullptr},
    {PEER, "publickey", "peer_pub_key", true, false, false, "peer-key"},
    {PEER, "presharedkey", "psk", true, true, false, nullptr},
    {PEER, "endpoint", "peer_endpoint", false, false, false, "endpoint"},
    {PEER, "allowedips", "peer_allow_ip", false, false, false, nullptr},
    {PEER, "persistentkeepalive", "keepalive", false, false, false, nullptr},
};

struct Ignored {
  const char* name;
  const char* why;
};
constexpr const char* PROGRAM = "programs of a profile are never run";
constexpr const char* OURS = "this appliance decides how the interface is set up";
constexpr Ignored IGNORED[] = {
    {"postup", PROGRAM}, {"preup", PROGRAM}, {"postdown", PROGRAM}, {"predown", PROGRAM},
    {"table", OURS},     {"mtu", OURS},      {"fwmark", OURS},      {"saveconfig", OURS},
};

// A line of the file.
struct Entry {
  std::string text{};     // trimmed
  std::string section{};  // in small letters
  int peer = 0;           // number of the [Peer] that it is in, from 1
  std::string name{};     // in small letters; empty for no setting
  std::string value{};
  bool head = false;
};

std::vector<Entry> entries_of(const std::string& text) {
  std::vector<Entry> entries;
  std::string section;
  int peers = 0;
  for (const std::string& raw : split_lines(text)) {
    Entry entry{raw};
    trim(entry.text);
    std::string content = entry.text.substr(0, entry.text.find('#'));
    trim(content);
    if (content.starts_with('[') && content.ends_with(']')) {
      section = to_lower(content.substr(1, content.size() - 2));
      if (section == PEER) ++peers;
      entry.head = true;
    } else if (const size_t equals = content.find('='); equals != std::string::npos) {
      entry.name = to_lower(content.substr(0, equals));
      entry.value = content.substr(equals + 1);
      trim(entry.name);
      trim(entry.value);
    }
    entry.section = section;
    entry.peer = section == PEER ? peers : 0;
    entries.push_back(std::move(entry));
  }
  return entries;
}

const Key* key_of(const Entry& entry) {
  const auto* const key = std::find_if(std::begin(KEYS), std::end(KEYS), [&](const Key& known) {
    return entry.section == known.section && entry.name == known.name;
  });
  return key == std::end(KEYS) || entry.peer > 1 ? nullptr : key;
}

std::string first_ipv4(const std::string& list) {
  for (size_t at = 0; at < list.size();) {
    const size_t end = std::min(list.find(',', at), list.size());
    std::string item = list.substr(at, end - at);
    item.resize(std::min(item.find('/'), item.size()));
    trim(item);
    if (item.find('.') != std::string::npos && item.find(':') == std::string::npos) return item;
    at = end + 1;
  }
  return {};
}

std::string value_of(const Settings& settings, std::string_view option) {
  const auto found = std::find_if(settings.begin(), settings.end(),
                                  [&](const auto& one) { return one.first == option; });
  return found == settings.end() ? std::string() : found->second;
}

Line line_of(const Entry& entry, bool is_first, const Settings& settings) {
  Line line;
  line.text = entry.text;
  if (entry.text.empty() || entry.text[0] == '#') {
    line.blank = true;
    line.why = entry.text.empty() ? "an empty line" : "a comment";
    return line;
  }
  if (entry.peer > 1) {
    if (entry.name.ends_with("key")) line.text = entry.name + " = …";
    line.why = "a profile has one peer";
    return line;
  }
  if (entry.head && (entry.section == PEER || entry.section == INTERFACE)) {
    line.fate = Fate::Kept;
    return line;
  }
  const Key* key = key_of(entry);
  if (!key) {
    const auto* const row =
        std::find_if(std::begin(IGNORED), std::end(IGNORED),
                     [&](const Ignored& known) { return entry.name == known.name; });
    line.why = row == std::end(IGNORED) ? "not a setting of a WireGuard client" : row->why;
    return line;
  }
  if (key->secret) line.text = entry.text.substr(0, entry.text.find('=')) + "= …";
  const std::string stored = value_of(settings, key->option);
  if (!is_first) {
    line.why = "an earlier line of the same name counts";
  } else if (stored == entry.value) {
    line.fate = Fate::Kept;
  } else if (stored.empty()) {
    line.why = key->first_ipv4 ? "no address of IPv4" : "not stored";
  } else {
    line.fate = Fate::Changed;
    line.why = key->secret ? "stored in another form" : "becomes: " + stored;
  }
  return line;
}

}  // namespace

bool is_conf_file(const std::string& text) {
  bool interface = false, peer = false;
  for (const Entry& entry : entries_of(text)) {
    if (!entry.head) continue;
    interface = interface || entry.section == INTERFACE;
    peer = peer || entry.section == PEER;
  }
  return interface && peer;
}

Settings settings_of(const std::string& text) {
  Settings settings;
  for (const Entry& entry : entries_of(text)) {
    const Key* key = key_of(entry);
    if (!key) continue;
    if (!value_of(settings, key->option).empty()) continue;
    const std::string value = key->first_ipv4 ? first_ipv4(entry.value) : entry.value;
    if (value.empty()) continue;
    settings.emplace_back(key->option, value);
    if (std::string_view(key->option) == "manual_dns") settings.emplace_back("enable_dns", "TRUE");
  }
  settings.emplace_back("client_mask", "32");
  return settings;
}

Report report_conf_file(const std::string& text) {
  Report report;
  const Settings settings = settings_of(text);
  std::vector<std::string> seen;
  for (const Entry& entry : entries_of(text)) {
    const std::string name = entry.section + '.' + entry.name;
    const bool is_first = std::find(seen.begin(), seen.end(), name) == seen.end();
    if (entry.peer <= 1 && !entry.name.empty()) seen.push_back(name);
    report.lines.push_back(line_of(entry, is_first, settings));
    Line& line = report.lines.back();
    line.first = line.last = report.lines.size();
    const Key* key = is_first ? key_of(entry) : nullptr;
    if (!key || !key->key || is_key(entry.value)) continue;
    line.fate = Fate::Refused;
    line.why = "not a key of WireGuard";
    report.error = ERR_WIREGUARD_PRIVATE_KEY;
    report.reason = "line " + std::to_string(line.first) + ": not a key of WireGuard";
  }
  for (const Key& key : KEYS) {
    if (key.needed && value_of(settings, key.option).empty()) report.needs.emplace_back(key.needed);
  }
  if (const std::string endpoint = value_of(settings, "peer_endpoint"); !endpoint.empty()) {
    const size_t colon = std::min(endpoint.rfind(':'), endpoint.size());
    report.servers.push_back(
        {endpoint.substr(0, colon), endpoint.substr(std::min(colon + 1, endpoint.size())), "udp"});
  }
  if (!report.needs.empty()) {
    report.error = ERR_MISS_OPTION;
    report.reason = "the file does not have: ";
    for (const std::string& need : report.needs)
      report.reason += (&need == report.needs.data() ? "" : ", ") + need;
  }
  return report;
}

}  // namespace ormel::wireguard
