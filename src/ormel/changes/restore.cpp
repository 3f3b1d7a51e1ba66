#include "ormel/changes/restore.h"

#include <algorithm>
#include <ctime>
#include <iterator>
#include <unistd.h>

#include "base/file.h"
#include "base/second_factor.h"
#include "base/tunnel.h"
#include "ormel/actions/certificate_rotation.h"
#include "ormel/base/error.h"
#include "ormel/base/handle.h"
#include "ormel/changes/settings_text.h"
#include "ormel/changes/state_files.h"
#include "ormel/config/pool.h"
#include "ormel/host/bus.h"
#include "ormel/host/process.h"

namespace ormel::changes {

namespace {

constexpr const char* JOURNAL = "/pending/restore.json";
constexpr const char* WAKE_GATEWAY = "external_dev.update_vpn_gw";
constexpr const char* KIND_WORDS[] = {"run", "start", "register", "unregister", "gateway"};

bool is_on(const SettingsText& text, const std::string& section) {
  const std::string value = text.value(section, "Enable");
  return value == "TRUE" || value == "1";
}

// A server, or a profile with its index.
struct Tunnel {
  const TunnelFacts* facts = nullptr;
  int index = 0;
};

Tunnel tunnel_of_section(const std::string& section) {
  for (const TunnelFacts& facts : TUNNELS) {
    if (section == facts.section) return {&facts, 0};
    const std::string_view prefix = facts.client_section;
    if (!section.starts_with(prefix)) continue;
    const std::string number = section.substr(prefix.size());
    for (int index = 1; index <= MAX_TUNNEL_INDEX; ++index) {
      if (number == std::to_string(index)) return {&facts, index};
    }
  }
  return {};
}

void add(std::vector<Step>& steps, Step step) {
  if (std::ranges::find(steps, step) == steps.end()) steps.push_back(std::move(step));
}

Step client_step(Step::Kind kind, const Tunnel& tunnel, const char* action) {
  return {kind, {tunnel.facts->client_script, action, std::to_string(tunnel.index)}};
}

void plan_client(Plan& plan, const Tunnel& tunnel, const std::string& section,
                 const SettingsText& now, const SettingsText& then) {
  const std::string interface = interface_name(tunnel.facts->client, tunnel.index);
  if (now.has(section)) add(plan.before, client_step(Step::Kind::RUN, tunnel, tunnel.facts->stop));
  if (!then.has(section)) {
    add(plan.before,
        {Step::Kind::RUN, {system::COMMON_SCRIPT, "remove_vpnclient_profile", interface}});
    add(plan.before, {Step::Kind::UNREGISTER, {section}});
    return;
  }
  if (!now.has(section))
    add(plan.after, {Step::Kind::RUN, {system::COMMON_SCRIPT, "add_vpnclient_profile", interface}});
  add(plan.after, {Step::Kind::REGISTER, {section}});
  if (is_on(then, section))
    add(plan.after, client_step(Step::Kind::START, tunnel, tunnel.facts->start));
}

void plan_server(Plan& plan, const TunnelFacts& facts, const SettingsText& now,
                 const SettingsText& then) {
  const bool on = is_on(then, facts.section);
  if (!on && !is_on(now, facts.section)) return;
  add(plan.after, {Step::Kind::RUN, {facts.script, on ? "restart" : "stop"}});
}

// What a file other than vpn.conf needs once it is in place.
void plan_file(Plan& plan, const StateFile& row, const SettingsText& then) {
  switch (row.refresh) {
    case Refresh::NONE:
    case Refresh::SECTIONS:
    case Refresh::PROFILE: return;
    case Refresh::SCRIPT:
      add(plan.after, {Step::Kind::RUN, {row.script, row.action}});
      return add(plan.after, {Step::Kind::GATEWAY, {}});
    case Refresh::GATEWAY: return add(plan.after, {Step::Kind::GATEWAY, {}});
    case Refresh::SERVER:
      for (const TunnelFacts& facts : TUNNELS) {
        if (std::string_view(facts.script) != row.script || !is_on(then, facts.section)) continue;
        const Step whole{Step::Kind::RUN, {facts.script, "restart"}};
        if (std::ranges::find(plan.after, whole) == plan.after.end())
          add(plan.after, {Step::Kind::RUN, {row.script, row.action}});
      }
  }
}

// The section of the profile that a file belongs to: its index ends the name, or comes before "_".
std::string section_of_profile(const StateFile& row, const std::string& path) {
  for (const TunnelFacts& facts : TUNNELS) {
    if (std::string_view(facts.client_script) != row.script) continue;
    const std::string name = path.substr(path.rfind('/') + 1);
    const size_t begin = name.find_first_of("0123456789");
    return facts.client_section + name.substr(begin, name.find('_') - begin);
  }
  return {};
}

// Why the certificates of a snapshot cannot go back; empty when they can.
std::string step_again(const std::string& rotation) {
  const std::string step =
      certificates::overdue_step(certificates::parse_rotation(rotation), std::time(nullptr));
  return step.empty() ? step
                      : "the certificates of the OpenVPN server stay as they are: " + step +
                            ", and the server's next start would take it again";
}

Json json_of(const std::vector<Step>& steps) {
  Json rows{json_array()};
  for (const Step& step : steps) {
    Json row{json_array()};
    json_array_append_new(row.get(), json_string(KIND_WORDS[static_cast<size_t>(step.kind)]));
    for (const std::string& word : step.words)
      json_array_append_new(row.get(), json_string(word.c_str()));
    json_array_append_new(rows.get(), row.release());
  }
  return rows;
}

std::vector<Step> steps_of(const json_t* rows) {
  std::vector<Step> steps;
  size_t at = 0;
  json_t* row = nullptr;
  json_array_foreach(rows, at, row) {
    Step step;
    for (size_t i = 0; i < json_array_size(row); ++i) {
      const char* const word = json_string_value(json_array_get(row, i));
      if (i > 0) step.words.emplace_back(word ? word : "");
    }
    const char* const kind = json_string_value(json_array_get(row, 0));
    const auto* const known = std::ranges::find(KIND_WORDS, std::string_view(kind ? kind : ""));
    if (known == std::end(KIND_WORDS)) continue;
    step.kind = static_cast<Step::Kind>(known - std::begin(KIND_WORDS));
    steps.push_back(std::move(step));
  }
  return steps;
}

bool announce(const std::string& section, config::ClientConfig::OptExternalDev what) {
  const Tunnel tunnel = tunnel_of_section(section);
  if (!tunnel.facts || tunnel.index == 0) return false;
  config::Management pool;  // as the files are now
  pool.load();
  const config::PolyConfig* const stored = pool.fetch(tunnel.facts->client, tunnel.index);
  const config::PolyConfig made{config::make_record(tunnel.facts->client, tunnel.index)};
  auto* const record = (stored ? stored : &made)->cast<config::ClientConfig>();
  return record->mibcall_external_dev(what) == NO_ERROR;
}

std::string words_of(const Step& step) {
  std::string text;
  for (const std::string& word : step.words) text += (text.empty() ? "" : " ") + word;
  return text;
}

}  // namespace

bool starts_tunnels(const Step& step) {
  return step.kind == Step::Kind::START ||
         (step.kind == Step::Kind::RUN && !step.words.empty() &&
          std::ranges::any_of(TUNNELS, [&](const TunnelFacts& facts) {
            return step.words[0] == facts.script || step.words[0] == facts.client_script;
          }));
}

Restore::Restore(const Snapshots& snapshots, Runner runner)
    : snapshots_(snapshots),
      runner_(std::move(runner)),
      journal_(snapshots.root() + Snapshots::STATE_FOLDER + JOURNAL) {}

std::string Restore::settings_now() const {
  std::string text;
  if (fenro::read_file((snapshots_.root() + config::VPN_CONF).c_str(), text) != 0) return {};
  return text;
}

std::vector<std::string> Restore::files_of(const Snapshot& snapshot, std::string& why) const {
  std::vector<std::string> files = snapshots_.changed_since(snapshot);
  std::string step =
      step_again(snapshots_.content(snapshot, certificates::ROTATION_FILE).value_or(""));
  if (step.empty()) return files;
  const auto dropped = std::erase_if(files, [](const std::string& path) {
    const StateFile* const row = find_state_file(path);
    return row && row->part == Part::Certificates;
  });
  if (dropped > 0) why = std::move(step);
  return files;
}

Plan Restore::plan(const Snapshot& snapshot) const {
  Plan plan;
  plan.files = files_of(snapshot, plan.kept);
  const SettingsText now{settings_now()};
  const SettingsText then{snapshots_.content(snapshot, config::VPN_CONF).value_or("")};
  std::vector<std::string> sections;
  if (std::ranges::find(plan.files, config::VPN_CONF) != plan.files.end())
    sections = now.differing(then);
  for (const std::string& path : plan.files) {
    const StateFile* const row = find_state_file(path);
    if (row && row->refresh == Refresh::PROFILE) sections.push_back(section_of_profile(*row, path));
  }
  for (const std::string& section : sections) {
    const Tunnel tunnel = tunnel_of_section(section);
    if (tunnel.facts && tunnel.index == 0) plan_server(plan, *tunnel.facts, now, then);
    if (tunnel.facts && tunnel.index != 0) plan_client(plan, tunnel, section, now, then);
  }
  for (const std::string& path : plan.files) {
    if (const StateFile* const row = find_state_file(path)) plan_file(plan, *row, then);
  }
  return plan;
}

bool Restore::put_back(const Snapshot& snapshot, const std::string& path) const {
  const std::string& root = snapshots_.root();
  const std::string target = root + path;
  const StateFile& row = *find_state_file(path);
  const std::optional<std::string> text = snapshots_.content(snapshot, path);
  if (!text && snapshot.find(path)) return false;
  if (row.part == Part::SecondFactors)
    return !path.ends_with(".conf") ||  // the list of users follows
           fenro::SecondFactors(root + row.path, root + "/run/fenro/totp.lock")
               .require_as(text.value_or(""));
  if (!text) return unlink(target.c_str()) == 0 || errno == ENOENT;
  const bool settings = path == config::VPN_CONF;
  return fenro::replace_file(
      target,
      settings ? SettingsText(*text).with_live_keys_of(SettingsText(settings_now())) : *text,
      row.mode);
}

bool Restore::put_back(const Snapshot& snapshot, std::string& reason) const {
  bool whole = true;
  std::string ignored;
  for (const std::string& path : files_of(snapshot, ignored)) {
    if (find_state_file(path) && put_back(snapshot, path)) continue;
    reason += (reason.empty() ? "" : ", ") + path;
    whole = false;
  }
  if (!whole) reason = "cannot be restored: " + reason;
  return whole;
}

std::vector<std::string> Restore::take(const std::vector<Step>& steps) const {
  std::vector<std::string> failed;
  for (const Step& step : steps) {
    if (!runner_(step) && !step.words.empty()) failed.push_back(words_of(step));
  }
  return failed;
}

int Restore::run(const Snapshot& snapshot, Plan& done, std::string& reason) const {
  for (const Copy& copy : snapshot.files) {
    if (snapshots_.content(snapshot, copy.path)) continue;
    reason = "the copy of " + copy.path + " in snapshot " + std::to_string(snapshot.id) +
             " is damaged; nothing was changed";
    return ERR_SAVE_FILE;
  }
  done = plan(snapshot);
  const Json document{json_pack("{s:i, s:o, s:o}", "snapshot", snapshot.id, "before",
                                json_of(done.before).release(), "after",
                                json_of(done.after).release())};
  const CString text{json_dumps(document.get(), JSON_COMPACT)};
  if (!text || !snapshots_.hold(snapshot.id) ||
      !fenro::make_private_folder(journal_.substr(0, journal_.rfind('/'))) ||
      !fenro::replace_file(journal_, text.get(), fenro::PRIVATE_FILE)) {
    reason = journal_ + " cannot be written; nothing was changed";
    return ERR_SAVE_FILE;
  }
  take(done.before);  // what cannot be stopped may be gone already
  const bool whole = put_back(snapshot, reason);
  done.failed = take(done.after);
  if (!whole) return ERR_SAVE_FILE;
  unlink(journal_.c_str());
  snapshots_.release(snapshot.id);
  return NO_ERROR;
}

bool Restore::unfinished() const {
  return access(journal_.c_str(), F_OK) == 0;
}

bool Restore::finish(Moment moment) const {
  std::string text;
  if (fenro::read_file(journal_.c_str(), text) != 0) return true;
  const Json document{json_loadb(text.data(), text.size(), 0, nullptr)};
  const auto snapshot = snapshots_.find(
      static_cast<int>(json_integer_value(json_object_get(document.get(), "snapshot"))));
  std::string ignored;
  const auto steps = [&](const char* when) {
    std::vector<Step> rows = steps_of(json_object_get(document.get(), when));
    if (moment == Moment::BOOT) std::erase_if(rows, starts_tunnels);
    return rows;
  };
  take(steps("before"));
  const bool whole = snapshot && put_back(*snapshot, ignored);
  take(steps("after"));
  if (!whole && snapshot) return false;
  unlink(journal_.c_str());
  if (snapshot) snapshots_.release(snapshot->id);
  return whole;
}

bool Restore::perform(const Step& step) {
  std::string output;
  switch (step.kind) {
    case Step::Kind::RUN: return system::do_exec_safe(step.words, output) == 0;
    case Step::Kind::START: return system::background(step.words) == NO_ERROR;
    case Step::Kind::REGISTER:
      return announce(step.words[0], config::ClientConfig::opt_ext_dev_register);
    case Step::Kind::UNREGISTER:
      return announce(step.words[0], config::ClientConfig::opt_ext_dev_unregister);
    case Step::Kind::GATEWAY:
      // The daemon looks within a second anyway; a failure costs no more than that.
      std::ignore = system::easy_mib_call(system::NETWORK_SERVICE, WAKE_GATEWAY, nullptr);
  }
  return true;
}

std::vector<std::string> affected(const Plan& plan) {
  std::vector<std::string> names;
  const auto note = [&](const std::string& name) {
    if (std::ranges::find(names, name) == names.end()) names.push_back(name);
  };
  for (const std::vector<Step>* const steps : {&plan.before, &plan.after}) {
    for (const Step& step : *steps) {
      for (const TunnelFacts& facts : TUNNELS) {
        if (step.words.empty()) continue;
        if (step.words[0] == facts.script) note(std::string("server ") + facts.title);
        if (step.words[0] == facts.client_script)
          note(std::string("profile ") + facts.client_section + step.words[2]);
      }
    }
  }
  return names;
}

}  // namespace ormel::changes
