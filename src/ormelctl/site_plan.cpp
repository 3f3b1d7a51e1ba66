// Servers and profiles: what separates them from a document, and the actions that change it.
#include <algorithm>
#include <memory>

#include "ormel/base/error.h"
#include "ormel/base/error_capture.h"
#include "ormel/base/file.h"
#include "ormel/drivers/openvpn/openvpn.h"
#include "ormel/drivers/wireguard/wireguard.h"
#include "ormelctl/archive.h"
#include "ormelctl/profile.h"
#include "ormelctl/site.h"

namespace ormelctl::site {
namespace {

using ormel::Json;
using ormel::config::BaseConfig;
using ormel::config::cm;
using ormel::config::PolyConfig;
using Words = std::vector<std::string>;

// What a document wants of one record.
struct Wanted {
  const Protocol* protocol;
  ormel::TYPE type;
  int index;         // 0 for a new profile
  std::string path;  // of the document
  const json_t* object;
  const json_t* now;  // the same as it is; null for a new profile

  [[nodiscard]] bool enable() const {
    const json_t* const value = json_object_get(object, "enable");
    return json_is_true(value ? value : json_object_get(now, "enable"));
  }
  [[nodiscard]] bool was_enabled() const { return json_is_true(json_object_get(now, "enable")); }
};

using Given = std::vector<std::pair<const Member*, std::string>>;  // members that differ

Given differing(const Wanted& wanted) {
  Given given;
  for (const Member& member : members_of(wanted.type)) {
    const json_t* const value = json_object_get(wanted.object, member.name.c_str());
    if (value && !json_equal(value, json_object_get(wanted.now, member.name.c_str())))
      given.emplace_back(&member, option_text(member, value));
  }
  return given;
}

std::string reason_of(int error, const std::string& detail) {
  return detail.empty() ? ormel::get_error_message(static_cast<unsigned>(error)) : detail;
}

// Applies an option to a work record, as the command line does. Empty, or why it is refused.
std::string apply(const ormel::option::CommandOption& option, BaseConfig& work,
                  const std::string& value) {
  ormel::system::ErrorCapture errors;
  ormel::option::is_cgi_mode = false;
  BaseConfig* record = &work;
  const int rc = ormel::option::apply_option(option, &record, value.c_str());
  const std::string detail = errors.take();
  if (rc == 0) return {};
  const std::string reason = reason_of(rc, detail);
  return "does not take " + value + (reason == value ? "" : " (" + reason + ')');
}

const ormel::option::CommandOption& enable_option() {
  static const auto* const row = [] {
    const auto* at = ormel::option::COMMAND_OPTIONS;
    while (at->fpr && std::string_view(at->opt.name) != "enable") ++at;
    return at;
  }();
  return *row;
}

std::unique_ptr<PolyConfig> work_record(const Wanted& wanted) {
  auto work = wanted.index == 0 && ormel::is_client(wanted.type)
                  ? std::make_unique<PolyConfig>(ormel::config::make_record(wanted.type, 0))
                  : cm.clone(wanted.type, wanted.index);
  if (work && work->bc) (*work)->action = wanted.now ? ormel::MODIFY_ACTION : ormel::ADD_ACTION;
  return work;
}

// Sets what differs. Turning off comes first and turning on last, since pools of servers that are
// on must not clash.
bool fill(const Wanted& wanted, const Given& given, BaseConfig& work, Plan& plan) {
  const bool server = ormel::is_server(wanted.type);
  const std::string enable = wanted.enable() ? "true" : "false";
  if (server && !wanted.enable()) std::ignore = apply(enable_option(), work, enable);
  for (const auto& [member, text] : given) {
    const std::string shown_text = member->secret ? "the text given" : text;
    std::string why = apply(*member->option, work, text);
    if (!why.empty() && member->secret) why = "is not accepted";
    if (!why.empty()) return plan.refuse(wanted.path + '.' + member->name, why);
  }
  if (!server || !wanted.enable()) return true;
  const std::string why = apply(enable_option(), work, enable);
  return why.empty() || plan.refuse(wanted.path + ".enable", why);
}

// Notes what is another value once the record is filled; an address of the same pool is not.
bool note_filled(const Wanted& wanted, const Given& given, const BaseConfig& work, Plan& plan) {
  bool differs = false;
  for (const auto& [member, text] : given) {
    const Json value = value_of(work, *member);
    const json_t* const before = json_object_get(wanted.now, member->name.c_str());
    if (json_equal(value.get(), before)) continue;
    differs = true;
    plan.note('~', wanted.path + '.' + member->name,
              member->secret ? "changed" : shown(before) + " → " + shown(value.get()));
  }
  return differs;
}

bool note_enable(const Wanted& wanted, Plan& plan) {
  if (wanted.enable() == wanted.was_enabled()) return false;
  plan.note('~', wanted.path + ".enable",
            std::string(wanted.was_enabled() ? "true" : "false") + " → " +
                (wanted.enable() ? "true" : "false"));
  return true;
}

// Servers.

Form server_form(const Wanted& wanted, const Given& given) {
  Form form{{"type", wanted.protocol->server_word}, {"enable", wanted.enable() ? "true" : "false"}};
  for (const auto& [member, text] : given) form.emplace_back(member->name, text);
  return form;
}

Phase phase_of(const Wanted& wanted) {
  if (!wanted.enable()) return Phase::Off;
  return wanted.was_enabled() ? Phase::Change : Phase::On;
}

bool has_key(const Wanted& wanted, const BaseConfig& work, Plan& plan) {
  for (const Member& member : members_of(wanted.type)) {
    if (member.name != "psk" || !wanted.enable()) continue;
    if (json_string_length(value_of(work, member).get()) == 0)
      return plan.refuse(wanted.path + ".psk", "is missing: a server that is on needs it");
  }
  return true;
}

bool plan_server(const Wanted& wanted, Plan& plan) {
  const Given given = differing(wanted);
  if (given.empty() && wanted.enable() == wanted.was_enabled()) return ++plan.same, true;
  const auto work = work_record(wanted);
  if (!fill(wanted, given, *work->bc, plan) || !has_key(wanted, *work->bc, plan)) return false;
  const bool members_differ = note_filled(wanted, given, *work->bc, plan);
  if (!note_enable(wanted, plan) && !members_differ) return ++plan.same, true;
  ++plan.changed;
  plan.steps.push_back({phase_of(wanted), wanted.path,
                        [form = server_form(wanted, given), protocol = wanted.protocol,
                         on = wanted.enable()]() mutable {
                          if (on) complete_network(*protocol, form);
                          return call("/ormel/config/modify", form);
                        }});
  return true;
}

// Profiles.

const BaseConfig* find(const std::string& key) {
  for (const auto& holder : cm.config_pool) {
    if ((holder->bc->type & ALL_CLIENTS) != 0 && key_of(cm, *holder->bc) == key)
      return holder->bc.get();
  }
  return nullptr;
}

Words profile_words(const Wanted& wanted, const std::string& action, const Given& given) {
  Words words{"--type=" + wanted.protocol->client_word, action};
  for (const auto& [member, text] : given) words.push_back("--" + member->name + '=' + text);
  return words;
}

Step connection(const Wanted& wanted, Phase phase, const char* action) {
  return {
      phase, wanted.path,
      [words = Words{"--type=" + wanted.protocol->client_word,
                     std::string(action) + std::to_string(wanted.index)}] { return act(words); }};
}

bool verified(const Wanted& wanted, BaseConfig& work, Plan& plan) {
  ormel::system::ErrorCapture errors;
  const int rc = work.verify();
  const std::string detail = errors.take();
  return rc == 0 || plan.refuse(wanted.path, "cannot be used: " + reason_of(rc, detail));
}

// The text that an import of `text` stores; empty when it is refused, with the cause in `why`.
std::string converted(const std::string& text, int slot, std::string& why) {
  const ormel::system::MemoryFile file(text);
  ormel::ovpn::ClientConfig record(slot);
  record.file = file.path();
  record.name = "imported";
  ormel::option::ConfigFile profile;
  ormel::system::ErrorCapture errors;
  const int rc = record.convert(slot, profile);
  const std::string detail = errors.take();
  if (rc != 0) why = reason_of(rc, detail);
  return rc == 0 ? profile.text(true, record.remotes) : std::string();
}

// An imported profile keeps its text: another one is another profile.
bool same_text(const Wanted& wanted, Plan& plan) {
  const std::string given = text_of(wanted.object, PROFILE_TEXT);
  const std::string stored = text_of(wanted.now, PROFILE_TEXT);
  if (given.empty() || given == stored) return true;
  std::string why;
  if (converted(given, wanted.index, why) == converted(stored, wanted.index, why)) return true;
  return plan.refuse(wanted.path + '.' + PROFILE_TEXT,
                     why.empty() ? "is another profile than the stored one: remove that first, or "
                                   "choose another name"
                                 : "cannot be imported: " + why);
}

void connect_or_not(const Wanted& wanted, bool changed, Plan& plan) {
  if (!wanted.enable() && wanted.was_enabled() && !changed)
    plan.steps.push_back(connection(wanted, Phase::Off, "--disconnect="));
  if (wanted.enable() && (changed || !wanted.was_enabled()))
    plan.steps.push_back(connection(wanted, Phase::On, "--connect="));
}

bool plan_known(const Wanted& wanted, Plan& plan) {
  if (!same_text(wanted, plan)) return false;
  const Given given = differing(wanted);
  const auto work = work_record(wanted);
  if (!fill(wanted, given, *work->bc, plan)) return false;
  const bool changed = note_filled(wanted, given, *work->bc, plan);
  if (changed && !verified(wanted, *work->bc, plan)) return false;
  if (!note_enable(wanted, plan) && !changed) return ++plan.same, true;
  ++plan.changed;
  if (changed) {
    plan.steps.push_back({Phase::Change, wanted.path,
                          [words = profile_words(wanted, "--modify=" + std::to_string(wanted.index),
                                                 given)] { return act(words); }});
  }
  connect_or_not(wanted, changed, plan);
  return true;
}

// New profiles.

std::string name_of(const Wanted& wanted, const std::string& key) {
  const json_t* const name = json_object_get(wanted.object, "name");
  return json_is_string(name) ? json_string_value(name) : key;
}

bool is_wireguard(const Wanted& wanted) {
  return wanted.type == ormel::WIREGUARD_CLIENT_TYPE;
}

std::string name_word(const Wanted& wanted, const std::string& name) {
  return std::string(is_wireguard(wanted) ? "--client_name=" : "--name=") + encoded(name);
}

// The first free number is only known when it is stored.
Reply connect_new(const Protocol& protocol, const std::string& key) {
  const BaseConfig* const record = find(key);
  if (!record) return {.error = ormel::ERR_CONFIGURE_INDEX, .reason = key + " is not there"};
  return act({"--type=" + protocol.client_word, "--connect=" + std::to_string(record->index)});
}

void add_missing(const Wanted& wanted, const char* name, const std::string& value, Given& given) {
  if (json_object_get(wanted.object, name)) return;
  const std::vector<Member>& all = members_of(wanted.type);
  given.emplace_back(&*std::ranges::find(all, name, &Member::name), value);
}

// What a new profile has without being asked for: WireGuard's key and the mask of one address.
Given with_defaults(const Wanted& wanted) {
  Given given = differing(wanted);
  if (!is_wireguard(wanted)) return given;
  add_missing(wanted, "client_mask", "32", given);
  const Reply keys =
      json_object_get(wanted.object, "client_pri_key") ? Reply{} : call("/ormel/peer/keys");
  add_missing(wanted, "client_pri_key", text_of(keys.data(), "pri_key"), given);
  return given;
}

bool plan_plain(const Wanted& wanted, const std::string& key, Plan& plan) {
  const Given given = with_defaults(wanted);
  const auto work = work_record(wanted);
  if (!fill(wanted, given, *work->bc, plan)) return false;
  const std::string name = name_of(wanted, key);
  work->cast<ormel::config::ClientConfig>()->name = encoded(name);
  if (is_wireguard(wanted))
    work->cast<ormel::wireguard::ClientConfig>()->client_name = encoded(name);
  if (!verified(wanted, *work->bc, plan)) return false;
  Words words = profile_words(wanted, "--add", given);
  words.push_back(name_word(wanted, name));
  plan.steps.push_back({Phase::Add, wanted.path, [words] { return act(words); }});
  return true;
}

// Members that an import does not take are set on the stored profile.
Reply settle_imported(const Wanted& wanted, const std::string& key) {
  const Json now = present();
  const BaseConfig* const record = find(key);
  if (!record) return {.error = ormel::ERR_CONFIGURE_INDEX, .reason = key + " is not there"};
  Wanted stored = wanted;
  stored.now = json_object_get(json_object_get(now.get(), "profiles"), key.c_str());
  const Given given = differing(stored);
  if (given.empty()) return {};
  return act(profile_words(wanted, "--modify=" + std::to_string(record->index), given));
}

Reply import_text(const Wanted& wanted, const std::string& key) {
  const PrivateFolder folder;
  const std::string path = folder.path() + "/profile.ovpn";
  if (folder.path().empty() || !ormel::system::write_file(text_of(wanted.object, PROFILE_TEXT),
                                                          path.c_str(), fenro::PRIVATE_FILE))
    return {.error = ormel::ERR_SAVE_FILE, .reason = "no room for a folder below /run"};
  Words words{"--type=" + wanted.protocol->client_word, "--import=" + path,
              name_word(wanted, name_of(wanted, key))};
  for (const char* account : {"user", "pass"}) {
    const std::string text = text_of(wanted.object, account);
    if (!text.empty()) words.push_back(std::string("--") + account + '=' + text);
  }
  Reply reply = act(words);
  return reply.error == 0 ? settle_imported(wanted, key) : std::move(reply);
}

bool plan_import(const Wanted& wanted, const std::string& key, Plan& plan) {
  std::string why = "the text of the profile is missing";
  const std::string text = text_of(wanted.object, PROFILE_TEXT);
  if (text.empty() || converted(text, 1, why).empty())
    return plan.refuse(wanted.path + '.' + PROFILE_TEXT, "cannot be imported: " + why);
  const auto work = work_record(wanted);
  (*work)->action = ormel::MODIFY_ACTION;  // what an import does not take is set afterwards
  if (!fill(wanted, differing(wanted), *work->bc, plan)) return false;
  plan.steps.push_back(
      {Phase::Add, wanted.path, [wanted, key] { return import_text(wanted, key); }});
  return true;
}

bool plan_new(const Wanted& wanted, const std::string& key, Plan& plan) {
  const bool imported = wanted.type == ormel::OVPN_CLIENT_TYPE;
  if (!(imported ? plan_import(wanted, key, plan) : plan_plain(wanted, key, plan))) return false;
  ++plan.added;
  plan.note('+', wanted.path, '(' + wanted.protocol->name + ')');
  if (!wanted.enable()) return true;
  plan.steps.push_back({Phase::On, wanted.path,
                        [protocol = wanted.protocol, key] { return connect_new(*protocol, key); }});
  return true;
}

// A document names a profile by its key, and does not rename it.
bool same_name(const std::string& key, const json_t* object, const json_t* now, Plan& plan) {
  const std::string given = text_of(object, "name");
  const std::string stored = text_of(now, "name");
  return given.empty() || given == (stored.empty() ? key : stored) ||
         plan.refuse("profiles." + key + ".name",
                     "is not the name of this profile here: rename it by ormelctl profile set");
}

bool plan_profile(const std::string& key, const json_t* object, const json_t* now, Plan& plan) {
  const std::string path = "profiles." + key;
  const Protocol* const protocol = find_protocol(text_of(object, "protocol"));
  const BaseConfig* const stored = find(key);
  if (!stored) return plan_new({protocol, protocol->client, 0, path, object, nullptr}, key, plan);
  if (stored->type != protocol->client)
    return plan.refuse(path + ".protocol", "is " + text_of(now, "protocol") +
                                               " here: remove that profile first, or choose "
                                               "another name");
  return same_name(key, object, now, plan) &&
         plan_known({protocol, protocol->client, stored->index, path, object, now}, plan);
}

void plan_removal(const std::string& key, const json_t* now, bool prune, Plan& plan) {
  plan.note('-', "profiles." + key, '(' + text_of(now, "protocol") + ')');
  const BaseConfig* const stored = prune ? find(key) : nullptr;
  if (!stored) {
    ++plan.left;
    return;
  }
  ++plan.removed;
  plan.steps.push_back(
      {Phase::Remove, "profiles." + key,
       [words = Words{"--type=" + protocol_of(stored->type)->client_word,
                      "--remove=" + std::to_string(stored->index)}] { return act(words); }});
}

}  // namespace

bool plan_servers(const json_t* wanted, const json_t* now, bool, Plan& plan) {
  const char* name = nullptr;
  json_t* object = nullptr;
  json_object_foreach(const_cast<json_t*>(wanted), name, object) {
    const Protocol* const protocol = find_protocol(name);
    const Wanted server{protocol, protocol->server,          0, std::string("servers.") + name,
                        object,   json_object_get(now, name)};
    if (!plan_server(server, plan)) return false;
  }
  return true;
}

bool plan_profiles(const json_t* wanted, const json_t* now, bool prune, Plan& plan) {
  const char* key = nullptr;
  json_t* object = nullptr;
  json_object_foreach(const_cast<json_t*>(wanted), key, object) {
    if (!plan_profile(key, object, json_object_get(now, key), plan)) return false;
  }
  json_object_foreach(const_cast<json_t*>(now), key, object) {
    if (!json_object_get(wanted, key)) plan_removal(key, object, prune, plan);
  }
  return true;
}

}  // namespace ormelctl::site
