#include "ormel/changes/backup_restore.h"

#include <algorithm>
#include <ctime>
#include <iterator>
#include <memory>
#include <net/if.h>
#include <pwd.h>
#include <unistd.h>
#include <utility>

#include "base/second_factor.h"
#include "base/tunnel.h"
#include "ormel/actions/certificate_rotation.h"
#include "ormel/actions/privilege.h"
#include "ormel/base/error.h"
#include "ormel/base/file.h"
#include "ormel/base/http.h"
#include "ormel/base/lines.h"
#include "ormel/base/text.h"
#include "ormel/config/fields.h"
#include "ormel/config/pool.h"
#include "ormel/host/bus.h"
#include "ormel/host/process.h"
#include "ormel/host/sessions.h"
#include "ormel/host/vpn_process.h"

namespace ormel::changes {

namespace {

using config::BaseConfig;
using config::ClientConfig;
using config::cm;
using config::Management;
using config::PolyConfig;
using config::ServerConfig;

constexpr const char* EVERY_INTERFACE = "all";
constexpr const char* RIGHTS = "/etc/config/vpn_user_ex.conf";
constexpr int SILENT = 0;  // flags of the drivers' stop and start
constexpr int RESTART_FLAG = 2;

// A name that a selection takes; a name of a part means that part.
struct Choice {
  std::string_view name;
  bool Selection::*section;  // of vpn.conf, null without one
  std::optional<Part> part;
};
const Choice CHOICES[] = {
    {"servers", &Selection::servers, {}}, {"profiles", &Selection::profiles, Part::Profiles},
    {"peers", nullptr, Part::Peers},      {"certificates", nullptr, Part::Certificates},
    {"rights", nullptr, Part::Rights},    {"block-policy", nullptr, Part::BlockPolicy},
    {"holds", nullptr, Part::Holds},      {"gateway", nullptr, Part::Gateway},
    {"guard", nullptr, Part::Guard},      {"keeper", nullptr, Part::Keeper},
    {"address", nullptr, Part::Address},  {"second-factors", nullptr, Part::SecondFactors},
};

void choose(const Choice& choice, Selection& out) {
  if (choice.section) out.*choice.section = true;
  if (choice.part) out.parts.insert(*choice.part);
}

// A record by what the pool knows it by.
struct Slot {
  TYPE type = NONE_TYPE;
  int index = 0;
  bool operator<(const Slot& other) const {
    return std::pair(type, index) < std::pair(other.type, other.index);
  }
};

Slot slot_of(const BaseConfig& record) {
  return {record.type, record.index};
}

bool wants(const Selection& selection, const BaseConfig& record) {
  return is_server(record.type) ? selection.servers : selection.profiles;
}

// A file in the place of which the backup has another content, or none.
struct FileChange {
  const StateFile* row;
  std::string path;
  const BackupFile* wanted;  // null for one that goes
};

bool is_running(const BaseConfig& record) {
  if (record.pid != 0) return true;
  const TunnelFacts& facts = tunnel_of(record.type);
  if (is_client(record.type))
    return if_nametoindex(interface_name(record.type, record.index).c_str()) != 0;
  if (facts.server_daemon) return system::server_runs(record.type);
  const std::string interface = facts.server_interface + std::to_string(facts.first_number);
  return if_nametoindex(interface.c_str()) != 0;
}

constexpr const char* FACTORS = "/totp.conf";

Fault cannot_write(const std::string& path) {
  return {ERR_SAVE_FILE, path + " cannot be written",
          "look whether its disk has room, and restore again; what was written before it stays"};
}

class Restoration {
 public:
  Restoration(const Backup& backup, const Selection& selection, Restored& out)
      : backup_(backup), selection_(selection), out_(out), settings_(settings_text()) {
    present_.load();
    load_wanted(wanted_);
    compare_records();
    compare_files();
    warn_of_users();
    warn_of_rotation();
  }

  void describe() const {
    for (const Slot& slot : touched_) describe_interruption(slot);
  }

  Fault run() {
    stop_touched();
    if (Fault fault = write_files()) return start_again(fault);
    if (Fault fault = save_records()) return start_again(fault);
    announce_profiles();
    end_lost_sessions();
    start_all();
    refresh_files();
    return {};
  }

 private:
  [[nodiscard]] std::string_view settings_text() const {
    const BackupFile* const file = backup_.find(config::VPN_CONF);
    return file ? std::string_view{file->content} : std::string_view{};
  }

  // What the pool will hold: records of the backup where they are selected, present ones else.
  void load_wanted(Management& pool) {
    Management archived;
    archived.load(settings_.path().c_str());
    pool.config_version = present_.config_version;
    take(present_, pool, false);
    take(archived, pool, true);
    for (const auto& holder : pool.config_pool) prepare(*holder->bc, pool);
  }

  void take(Management& from, Management& to, bool from_backup) const {
    for (const auto& holder : from.config_pool) {
      if (wants(selection_, *holder->bc) == from_backup) to.config_pool.push_back(holder->clone());
    }
  }

  void prepare(BaseConfig& record, const Management& pool) {
    if (!wants(selection_, record)) return;
    config::forget_live_values(record);
    if (is_server(record.type)) settle_interface(static_cast<ServerConfig&>(record), pool);
  }

  void settle_interface(ServerConfig& server, const Management& pool) {
    const std::string& name = server.out_eif;
    if (name == EVERY_INTERFACE || name == "none" || if_nametoindex(name.c_str()) != 0) return;
    const bool is_tunnel = std::ranges::any_of(pool.config_pool, [&](const auto& holder) {
      return is_client(holder->bc->type) &&
             interface_name(holder->bc->type, holder->bc->index) == name;
    });
    if (is_tunnel) return;
    warn("interface " + name + " of the " + label_of(server) + " does not exist here: \"all\"");
    server.out_eif = EVERY_INTERFACE;
  }

  void warn(const std::string& text) {
    if (std::ranges::find(out_.warnings, text) == out_.warnings.end())
      out_.warnings.push_back(text);
  }

  void compare_records() {
    for (const auto& holder : wanted_.config_pool) compare_record(*holder->bc);
    for (const auto& holder : present_.config_pool) {
      const BaseConfig& record = *holder->bc;
      if (wanted_.fetch(record.type, record.index)) continue;
      out_.removed.push_back(label_of(record));
      same_records_ = false;
      touched_.insert(slot_of(record));
    }
  }

  void compare_record(const BaseConfig& record) {
    const PolyConfig* const present = present_.fetch(record.type, record.index);
    if (present && config::same_settings(*present->bc, record)) return;
    (present ? out_.changed : out_.added).push_back(label_of(record));
    same_records_ = false;
    touched_.insert(slot_of(record));
  }

  [[nodiscard]] bool is_wanted_file(const StateFile& row) const {
    return row.part != Part::Settings && selection_.parts.contains(row.part);
  }

  void compare_files() {
    for (const BackupFile& file : backup_.files) {
      const StateFile& row = *find_state_file(file.path);
      if (!is_wanted_file(row)) continue;
      row.part == Part::SecondFactors ? compare_factors(row, file) : compare_file(row, file);
    }
    for (const std::string& path : existing_state()) {
      const StateFile& row = *find_state_file(path);
      if (!is_wanted_file(row) || row.part == Part::SecondFactors || backup_.find(path)) continue;
      out_.removed.push_back(path);
      note_change({&row, path, nullptr});
    }
  }

  void compare_file(const StateFile& row, const BackupFile& file) {
    std::string present;
    const bool exists = access(file.path.c_str(), F_OK) == 0;
    if (exists && system::read_file(file.path.c_str(), present) && present == file.content) {
      ++out_.same;
      return;
    }
    (exists ? out_.changed : out_.added).push_back(file.path);
    note_change({&row, file.path, &file});
  }

  // A backup takes no second factor away. The list of users beside the file follows from it.
  void compare_factors(const StateFile& row, const BackupFile& file) {
    if (!file.path.ends_with(FACTORS)) return;
    if (!fenro::SecondFactors{}.differ_from(file.content)) {
      ++out_.same;
      return;
    }
    (access(file.path.c_str(), F_OK) == 0 ? out_.changed : out_.added).push_back(file.path);
    note_change({&row, file.path, &file});
  }

  void note_change(const FileChange& change) {
    files_.push_back(change);
    if (change.row->refresh == Refresh::PROFILE) {
      const size_t number = change.path.find_first_of("0123456789", change.path.rfind('/'));
      if (number != std::string::npos)
        touched_.insert({OVPN_CLIENT_TYPE, to_int(change.path.c_str() + number)});
    }
    if (change.row->refresh == Refresh::SERVER && change.row->action == std::string_view("restart"))
      touched_.insert({server_of(*change.row), 0});
  }

  static TYPE server_of(const StateFile& row) {
    const auto* const facts = std::ranges::find_if(TUNNELS, [&](const TunnelFacts& known) {
      return std::string_view(known.script) == row.script;
    });
    return facts == std::end(TUNNELS) ? NONE_TYPE : facts->server;
  }

  void warn_of_users() {
    const BackupFile* const rights = backup_.find(RIGHTS);
    if (!rights || !selection_.parts.contains(Part::Rights)) return;
    for (const std::string& line : split_lines(rights->content)) {
      const std::string user = line.substr(0, line.find(':'));
      if (!user.empty() && !getpwnam(user.c_str()))
        warn("user " + user + " is unknown here (the right is kept)");
    }
  }

  // Unlike an undo, a restore may be the only way to the certificates, so that they come back.
  void warn_of_rotation() {
    const auto change = std::ranges::find(files_, certificates::ROTATION_FILE, &FileChange::path);
    if (change == files_.end() || !change->wanted) return;
    const std::string step = certificates::overdue_step(
        certificates::parse_rotation(change->wanted->content), std::time(nullptr));
    if (!step.empty())
      warn("the certificates of the OpenVPN server are those of a rotation, and " + step +
           ": the server's next start takes that step at once");
  }

  void describe_interruption(const Slot& slot) const {
    const PolyConfig* const holder = present_.fetch(slot.type, slot.index);
    if (holder && (*holder)->enable) out_.interrupted.push_back(label_of(*holder->bc));
  }

  void stop_touched() {
    for (const Slot& slot : touched_) {
      const PolyConfig* const holder = present_.fetch(slot.type, slot.index);
      if (!holder || (!(*holder)->enable && !is_running(*holder->bc))) continue;
      std::ignore = (*holder)->do_disconnect(SILENT);  // what comes next starts it, or not
      if ((*holder)->enable) stopped_.push_back(slot);
    }
  }

  // After a failure, vpn.conf is still the old one: what was stopped runs again by it.
  Fault start_again(Fault fault) {
    cm.config_pool.clear();
    cm.load();
    out_.warnings.clear();
    std::string names;
    for (const Slot& slot : stopped_) {
      const PolyConfig* const holder = cm.fetch(slot.type, slot.index);
      if (!holder) continue;
      start(*holder->bc);
      names += (names.empty() ? "; started again: " : ", ") + label_of(*holder->bc);
    }
    fault.advice += names;
    for (const std::string& warning : out_.warnings) fault.advice += "; " + warning;
    return fault;
  }

  Fault write_files() {
    for (const FileChange& change : files_) {
      const bool done = change.wanted ? write_file(change) : unlink(change.path.c_str()) == 0;
      if (!done) return cannot_write(change.path);
    }
    return {};
  }

  static bool write_file(const FileChange& change) {
    if (change.row->part == Part::SecondFactors)
      return fenro::SecondFactors{}.restore(change.wanted->content);
    const std::string folder = change.path.substr(0, change.path.rfind('/'));
    if (access(folder.c_str(), F_OK) != 0 && !fenro::make_private_folder(folder)) return false;
    return system::replace_file(change.path, change.wanted->content, change.row->mode);
  }

  // Once the files of imported profiles are in their places, since these records read them.
  Fault save_records() {
    Management pool;
    load_wanted(pool);
    cm.config_pool = std::move(pool.config_pool);
    cm.config_version = pool.config_version;
    if (same_records_) return {};
    return cm.save() == NO_ERROR ? Fault{} : cannot_write(config::VPN_CONF);
  }

  // The network daemon has an entry for each profile.
  void announce_profiles() {
    for (const Slot& slot : touched_) {
      if (is_server(slot.type)) continue;
      const PolyConfig* const now = cm.fetch(slot.type, slot.index);
      const PolyConfig* const before = present_.fetch(slot.type, slot.index);
      if (!now && !before) continue;
      const auto operation =
          now ? ClientConfig::opt_ext_dev_modify : ClientConfig::opt_ext_dev_unregister;
      std::ignore = (now ? now : before)->cast<ClientConfig>()->mibcall_external_dev(operation);
      if (!now != !before) (now ? now : before)->bc->route_nat(now != nullptr);
    }
  }

  void end_lost_sessions() {
    if (!selection_.parts.contains(Part::Rights)) return;
    PrivilegeStorage now;
    load_privileges("", now);
    for (const auto& [user, mask] : rights_before_) {
      const auto found = now.find(user);
      const int lost = mask & ~(found == now.end() ? 0 : found->second);
      for (const TYPE server : ormel::RIGHTS) {
        if ((lost & server) != 0) system::kick_all_connection(server, user.c_str());
      }
    }
  }

  void start_all() {
    for (const auto& holder : cm.config_pool) {
      BaseConfig& record = *holder->bc;
      if (!record.enable || !wants(selection_, record)) continue;
      const bool touched = touched_.contains(slot_of(record));
      if (!touched && is_running(record)) continue;
      start(record);
    }
    for (const TYPE server : {OVPN_SERVER_TYPE, WIREGUARD_SERVER_TYPE}) restart_unselected(server);
  }

  void start(BaseConfig& record) {
    record.pid = 0;  // of the daemon that was stopped
    const bool server = is_server(record.type);
    const int rc = record.do_connect(server ? RESTART_FLAG : SILENT);
    out_.interrupted.push_back(label_of(record));
    if (rc != NO_ERROR || (server && !is_running(record)))
      warn("the " + label_of(record) + " does not run; ormelctl why says more");
  }

  // A server whose own settings stay while its keys or devices change.
  void restart_unselected(TYPE server) {
    const PolyConfig* const holder = cm.fetch(server, 0);
    if (selection_.servers || !holder || !(*holder)->enable || !touched_.contains({server, 0}))
      return;
    start(*holder->bc);
  }

  void refresh_files() const {
    std::set<std::string> done;
    for (const FileChange& change : files_) {
      if (done.insert(change.row->path).second) refresh(*change.row);
    }
  }

  void refresh(const StateFile& row) const {
    std::string output;
    if (row.refresh == Refresh::GATEWAY) {
      std::ignore =
          system::easy_mib_call(system::NETWORK_SERVICE, "external_dev.update_vpn_gw", nullptr);
    } else if (row.refresh == Refresh::SCRIPT || needs_action(row)) {
      if (system::do_exec_safe({row.script, row.action}, output) != 0)
        out_.warnings.push_back(std::string(row.script) + ' ' + row.action + " has failed");
    }
  }

  // A restart has been done; anything else of a server that is on has not.
  [[nodiscard]] bool needs_action(const StateFile& row) const {
    if (row.refresh != Refresh::SERVER) return false;
    const Slot slot{server_of(row), 0};
    const PolyConfig* const holder = cm.fetch(slot.type, slot.index);
    return !touched_.contains(slot) && holder && (*holder)->enable;
  }

  const Backup& backup_;
  const Selection& selection_;
  Restored& out_;
  system::MemoryFile settings_;
  Management present_{}, wanted_{};
  std::set<Slot> touched_{};
  std::vector<Slot> stopped_{};
  bool same_records_ = true;
  std::vector<FileChange> files_{};
  PrivilegeStorage rights_before_ = [] {
    PrivilegeStorage stored;
    load_privileges("", stored);
    return stored;
  }();
};

}  // namespace

std::string label_of(const config::BaseConfig& record) {
  const std::string protocol = to_lower(tunnel_of(record.type).log_name);
  if (is_server(record.type)) return protocol + " server";
  const std::string& stored = static_cast<const ClientConfig&>(record).name;
  std::string name;
  if (system::decode_urlEncoded(stored, name) != NO_ERROR) name = stored;
  return name + " (" + protocol + '/' + std::to_string(record.index) + ')';
}

Selection Selection::all() {
  Selection out;
  for (const Choice& choice : CHOICES) choose(choice, out);
  return out;
}

Fault Selection::read(std::string_view names, Selection& out) {
  out = {.servers = false, .profiles = false};
  for (size_t at = 0; at <= names.size();) {
    const size_t end = std::min(names.find(',', at), names.size());
    const std::string_view name = names.substr(at, end - at);
    const auto* const choice = std::ranges::find(CHOICES, name, &Choice::name);
    if (choice == std::end(CHOICES))
      return {ERR_VALUE, "there is no part \"" + std::string(name) + '"', "one of " + selectable()};
    choose(*choice, out);
    at = end + 1;
  }
  return {};
}

std::string selectable() {
  std::string names;
  for (const Choice& choice : CHOICES)
    names += (names.empty() ? "" : ",") + std::string(choice.name);
  return names;
}

Json document_of(const Restored& restored) {
  const struct {
    const char* key;
    const std::vector<std::string>* names;
  } lists[] = {{"changed", &restored.changed},
               {"added", &restored.added},
               {"removed", &restored.removed},
               {"interrupted", &restored.interrupted},
               {"warnings", &restored.warnings}};
  Json out{json_pack("{s:I}", "same", static_cast<json_int_t>(restored.same))};
  for (const auto& row : lists) {
    json_t* const list = json_array();
    for (const std::string& name : *row.names)
      json_array_append_new(list, json_string(system::valid_utf8(name).c_str()));
    json_object_set_new(out.get(), row.key, list);
  }
  return out;
}

Fault refusal_for_settings(const Selection& selection) {
  std::string fault = config::fault_of_settings().text;
  if (fault.empty() || (selection.servers && selection.profiles)) return {};
  return {ERR_REGULAR_FILE, fault + "; nothing was changed",
          "restore all of the backup, or at least its servers and profiles"};
}

Fault preview(const Backup& backup, const Selection& selection, Restored& out) {
  if (Fault fault = refusal_for_settings(selection)) return fault;
  Restoration(backup, selection, out).describe();
  return {};
}

Fault restore(const Backup& backup, const Selection& selection, Restored& out) {
  if (Fault fault = refusal_for_settings(selection)) return fault;
  return Restoration(backup, selection, out).run();
}

}  // namespace ormel::changes
