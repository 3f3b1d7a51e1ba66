// What a backup contains, for people.
#include <algorithm>
#include <set>

#include "base/tunnel.h"
#include "ormel/base/file.h"
#include "ormel/base/http.h"
#include "ormel/base/lines.h"
#include "ormel/base/text.h"
#include "ormel/changes/backup.h"
#include "ormel/config/pool.h"
#include "ormel/host/bus.h"

namespace ormel::changes {

namespace {

constexpr const char* PEERS = "/etc/config/ormel/wireguard/server_peers.conf";
constexpr const char* RIGHTS = "/etc/config/vpn_user_ex.conf";

Conf parsed(const BackupFile* file) {
  const system::MemoryFile memory{file ? file->content : ""};
  return Conf{Conf_Dir_Load(memory.path().c_str())};
}

void add_name(json_t* list, const std::string& encoded) {
  std::string name;
  if (system::decode_urlEncoded(encoded, name) != 0) name = encoded;
  json_array_append_new(list, json_string(system::valid_utf8(name).c_str()));
}

Json servers_on(const Conf& conf) {
  Json list{json_array()};
  for (const TunnelFacts& facts : TUNNELS) {
    if (Conf_Dir_Get_Bool(conf.get(), facts.section, "Enable", 0))
      json_array_append_new(list.get(), json_string(to_lower(facts.log_name).c_str()));
  }
  return list;
}

Json profiles(const Conf& conf) {
  Json list{json_array()};
  for (const TunnelFacts& facts : TUNNELS) {
    for (int index = 1; index <= config::MAX_CLIENTS; ++index) {
      const std::string section = facts.client_section + std::to_string(index);
      if (Conf_Dir_Get_Int(conf.get(), section.c_str(), "Index", 0) == 0) continue;
      add_name(list.get(), Conf_Dir_Get_Str(conf.get(), section.c_str(), "Profile File", ""));
    }
  }
  return list;
}

Json devices(const Conf& conf) {
  Json list{json_array()};
  for (int i = 0; i < conf->sec_num; ++i) {
    const char* const section = conf->sec[i];
    if (*Conf_Dir_Get_Str(conf.get(), section, "allow_ip", "") != '\0')
      add_name(list.get(), Conf_Dir_Get_Str(conf.get(), section, "name", ""));
  }
  return list;
}

Json users(const BackupFile* rights) {
  Json list{json_array()};
  if (!rights) return list;
  for (const std::string& line : split_lines(rights->content)) {
    const std::string name = line.substr(0, line.find(':'));
    if (!name.empty())
      json_array_append_new(list.get(), json_string(system::valid_utf8(name).c_str()));
  }
  return list;
}

std::string counted(const json_t* list, const char* one, const char* many) {
  const size_t count = json_array_size(list);
  return count == 0 ? "" : std::to_string(count) + ' ' + (count == 1 ? one : many);
}

// What a summary counts, and the parts that it names.
struct Counted {
  const char* key;
  const char *one, *many;
};
constexpr Counted COUNTED[] = {{"profiles", "profile", "profiles"},
                               {"servers", "server that is on", "servers that are on"},
                               {"devices", "device", "devices"},
                               {"users", "user with rights", "users with rights"}};
constexpr Part NAMED[] = {Part::Gateway, Part::Guard,  Part::Certificates,
                          Part::Holds,   Part::Keeper, Part::Address};

}  // namespace

Json contents(const Backup& backup) {
  const Conf settings = parsed(backup.find(config::VPN_CONF));
  size_t bytes = 0;
  std::set<Part> parts;
  for (const BackupFile& file : backup.files) {
    bytes += file.content.size();
    parts.insert(find_state_file(file.path)->part);
  }
  Json names{json_array()};
  for (const Part part : parts) json_array_append_new(names.get(), json_string(name_of(part)));
  return Json{json_pack(
      "{s:s, s:s, s:I, s:I, s:I, s:o, s:o, s:o, s:o, s:o}", "version", backup.version.c_str(),
      "host", system::valid_utf8(backup.host).c_str(), "time", static_cast<json_int_t>(backup.time),
      "files", static_cast<json_int_t>(backup.files.size()), "bytes",
      static_cast<json_int_t>(bytes), "servers", servers_on(settings).release(), "profiles",
      profiles(settings).release(), "devices", devices(parsed(backup.find(PEERS))).release(),
      "users", users(backup.find(RIGHTS)).release(), "parts", names.release())};
}

std::string summary(const Json& contents) {
  std::string text;
  const auto add = [&](const std::string& words) {
    if (!words.empty()) text += (text.empty() ? "" : ", ") + words;
  };
  for (const Counted& row : COUNTED)
    add(counted(json_object_get(contents.get(), row.key), row.one, row.many));
  size_t at = 0;
  const json_t* name = nullptr;
  json_array_foreach(json_object_get(contents.get(), "parts"), at, name) {
    const auto part = part_named(json_string_value(name));
    if (part && std::ranges::find(NAMED, *part) != std::end(NAMED)) add(json_string_value(name));
  }
  return text.empty() ? "nothing is set" : text;
}

}  // namespace ormel::changes
