// What a document wants beside servers and profiles: devices, rights, policies and notifications.
#include <algorithm>
#include <array>
#include <ctime>
#include <map>
#include <memory>
#include <pwd.h>
#include <set>

#include "base/grants.h"
#include "ormel/base/address.h"
#include "ormel/base/error.h"
#include "ormel/drivers/wireguard/key.h"
#include "ormel/drivers/wireguard/peers.h"
#include "ormel/drivers/wireguard/wireguard.h"
#include "ormel/host/bus.h"
#include "ormel/web/grant.h"
#include "ormelctl/profile.h"
#include "ormelctl/site.h"

namespace ormelctl::site {
namespace {

using ormel::Json;
using ormel::config::cm;

std::string member_text(const json_t* value) {
  if (json_is_boolean(value)) return json_is_true(value) ? "1" : "0";
  return json_is_integer(value)
             ? std::to_string(json_integer_value(value))
             : std::string(json_is_string(value) ? json_string_value(value) : "");
}

// One part that is a single object: what it has now, with the members of the document over it.
Json merged(const json_t* wanted, const json_t* now) {
  Json out{json_deep_copy(now)};
  json_object_update(out.get(), const_cast<json_t*>(wanted));
  return out;
}

// The walk over objects under names: `differs` plans one that is there or new, `gone` one that the
// document does not name. False when something is wrong.
template <typename Each, typename Gone>
bool walk(const json_t* wanted, const json_t* now, Each each, Gone gone) {
  const char* key = nullptr;
  json_t* object = nullptr;
  json_object_foreach(const_cast<json_t*>(wanted), key, object) {
    if (!each(key, object, json_object_get(now, key))) return false;
  }
  json_object_foreach(const_cast<json_t*>(now), key, object) {
    if (!json_object_get(wanted, key)) gone(key, object);
  }
  return true;
}

// Of something that the document does not name.
void plan_gone(const std::string& path, bool prune, Plan& plan, std::function<Reply()> run,
               Phase phase = Phase::Remove) {
  plan.note('-', path, "");
  if (!prune) {
    ++plan.left;
    return;
  }
  ++plan.removed;
  plan.steps.push_back({phase, path, std::move(run)});
}

// Notes an object that is new or differs; whether there is something to do.
bool note_object(const std::string& path, const json_t* wanted, const json_t* now, Plan& plan) {
  if (!now) {
    plan.note('+', path, "");
    return ++plan.added, true;
  }
  if (!note_members(path, wanted, now, plan)) return ++plan.same, false;
  return ++plan.changed, true;
}

// Devices.

// The network of the server as the document wants it, or as it is.
ormel::system::Network hub_network(const json_t* document_servers) {
  const auto* const stored = cm.fetch(ormel::WIREGUARD_SERVER_TYPE, 0);
  const auto& server = *stored->cast<ormel::wireguard::ServerConfig>();
  const json_t* const wanted = json_object_get(document_servers, "wireguard");
  const json_t* const mask = json_object_get(wanted, "server_mask");
  const std::string address = text_of(wanted, "server_ip");
  return {address.empty() ? server.server_ip : address,
          ormel::system::dotted_mask(mask ? static_cast<int>(json_integer_value(mask))
                                          : server.server_mask)};
}

bool check_peer(const std::string& path, const json_t* object, Plan& plan) {
  constexpr std::string_view ONE_ADDRESS = "/32";
  const std::string address = text_of(object, "peer_allow_ip");
  in_addr unused{};
  if (!ormel::wireguard::is_key(text_of(object, "peer_pub_key")))
    return plan.refuse(path + ".peer_pub_key", "is not a key of WireGuard");
  if (const std::string psk = text_of(object, "psk");
      !psk.empty() && !ormel::wireguard::is_key(psk))
    return plan.refuse(path + ".psk", "is not a key of WireGuard");
  const std::string host = address.substr(0, address.find('/'));
  if (!address.ends_with(ONE_ADDRESS) || !ormel::system::parse_address(host, unused))
    return plan.refuse(path + ".peer_allow_ip", "is not an IPv4 address with /32");
  const ormel::system::Network hub = hub_network(json_object_get(plan.document, "servers"));
  if (!ormel::system::is_intersect({host, "255.255.255.255"}, hub))
    return plan.refuse(path + ".peer_allow_ip",
                       "is not in the server's network " + hub.address + ", mask " + hub.mask);
  return true;
}

// Two devices of the document may not share a key or an address.
bool check_twins(const json_t* wanted, Plan& plan) {
  std::set<std::string> known;
  const char* name = nullptr;
  json_t* object = nullptr;
  json_object_foreach(const_cast<json_t*>(wanted), name, object) {
    for (const char* member : {"peer_pub_key", "peer_allow_ip"}) {
      if (!known.insert(text_of(object, member)).second)
        return plan.refuse(std::string("peers.") + name + '.' + member,
                           "is that of another device, too");
    }
  }
  return true;
}

Form peer_form(const std::string& name, const json_t* object) {
  Form form{{"peer_name", encoded(name)}};
  for (const char* member :
       {"peer_pub_key", "peer_allow_ip", "peer_endpoint", "keepalive", "psk"}) {
    const json_t* const value = json_object_get(object, member);
    if (value) form.emplace_back(member, member_text(value));
  }
  return form;
}

std::string peer_name(const std::string& key, const json_t* object) {
  const std::string name = text_of(object, "name");
  return name.empty() ? key : name;
}

// The number of a stored device by its key in the document; 0 without one.
int peer_index(const std::string& public_key) {
  const ormel::wireguard::PeerFile file(ormel::wireguard::FOLDER);
  for (int index = 1; index <= file.max_index(); ++index) {
    if (!file.is_free(index) && file.peer(index).pub_key == public_key) return index;
  }
  return 0;
}

// Gives the device an owner, or none for an empty name. It ends when the owner's access ends.
Reply set_owner(const std::string& public_key, const std::string& owner) {
  Reply reply;
  const std::string before = fenro::read_grants().owner_of(public_key);
  if (before == owner) return reply;
  fenro::GrantChange store;
  store.book.replace_key(public_key, "");
  if (!owner.empty()) store.book.devices.push_back({public_key, owner});
  if (!store || !store.save()) {
    reply.error = ormel::ERR_SAVE_FILE;
    reply.reason = "the owner of a device cannot be stored: ormelctl doctor";
  } else if (owner.empty() && !ormel::cgi::grant::lift_end(public_key)) {
    reply.error = ormel::ERR_CMD_FAILED;
    reply.reason = "a device that was of " + before + " could not be let in";
  } else if (!owner.empty() && !ormel::cgi::grant::apply_limits(fenro::read_grants(), owner)) {
    reply.error = ormel::ERR_CMD_FAILED;
    reply.reason = "a device of " + owner + " could not be kept out, or let in";
  }
  return reply;
}

// A new network of the server has moved its devices by then, so the values are set whole.
Reply put_peer(const std::string& key, const Json& object, const std::string& stored_key) {
  Form form = peer_form(peer_name(key, object.get()), object.get());
  const bool is_new = stored_key.empty();
  if (!is_new) form.emplace_back("index", std::to_string(peer_index(stored_key)));
  Reply reply = call(is_new ? "/ormel/peer/add" : "/ormel/peer/modify", form);
  if (reply.error != 0 || !json_object_get(object.get(), "owner")) return reply;
  return set_owner(text_of(object.get(), "peer_pub_key"), text_of(object.get(), "owner"));
}

bool plan_peer(const std::string& key, const json_t* object, const json_t* now, Plan& plan) {
  const std::string path = "peers." + key;
  const Json whole = now ? merged(object, now) : Json{json_deep_copy(object)};
  if (!note_object(path, object, now, plan)) return true;
  if (!check_peer(path, whole.get(), plan)) return false;
  if (const std::string owner = text_of(object, "owner");
      !owner.empty() && owner != text_of(now, "owner") && !getpwnam(owner.c_str()))
    return plan.refuse(path + ".owner", "is no user of this host: adduser " + owner + " makes one");
  const auto shared = std::make_shared<Json>(json_incref(whole.get()));
  plan.steps.push_back({Phase::Add, path, [key, shared, old = text_of(now, "peer_pub_key")] {
                          return put_peer(key, *shared, old);
                        }});
  return true;
}

// Ends of access.

// The servers of a grant by their end, those without one as 0: one call for each.
std::map<json_int_t, int> servers_by_end(const json_t* until) {
  std::map<json_int_t, int> servers;
  for (const Protocol& protocol : protocols())
    servers[json_integer_value(json_object_get(until, protocol.name.c_str()))] |= protocol.server;
  return servers;
}

Reply set_access(const std::string& user, const json_t* grant) {
  Reply reply;
  for (const auto& [end, servers] : servers_by_end(json_object_get(grant, "until"))) {
    reply = call("/ormel/grant/set", {{"user", user},
                                      {"type", std::to_string(servers)},
                                      {"until", std::to_string(end)},
                                      {"devices", std::to_string(number_of(grant, "devices"))}});
    if (reply.error != 0) break;
  }
  return reply;
}

bool plan_grant(const std::string& user, const json_t* wanted, const json_t* now, Plan& plan) {
  const std::string path = "access." + user;
  if (json_equal(wanted, now)) return ++plan.same, true;
  if (!getpwnam(user.c_str()))
    return plan.refuse(path, "is no user of this host: adduser " + user + " makes one");
  const char* server = nullptr;
  json_t* end = nullptr;
  json_object_foreach(json_object_get(wanted, "until"), server, end) {
    if (json_integer_value(end) <= std::time(nullptr))
      return plan.refuse(path + ".until." + server, "is over");
  }
  if (!note_object(path, wanted, now, plan)) return true;
  const auto grant = std::make_shared<Json>(json_deep_copy(wanted));
  plan.steps.push_back(
      {Phase::Change, path, [user, grant] { return set_access(user, grant->get()); }});
  return true;
}

// Rights.

int mask_of(const json_t* names) {
  int mask = 0;
  size_t at = 0;
  const json_t* name = nullptr;
  json_array_foreach(names, at, name) {
    const Protocol* const protocol = find_protocol(json_string_value(name));
    if (protocol) mask |= protocol->server;
  }
  return mask;
}

bool plan_user(const std::string& user, const json_t* names, const json_t* now, Plan& plan) {
  const std::string path = "rights." + user;
  const int mask = mask_of(names);
  if (now && mask == mask_of(now)) return ++plan.same, true;
  if (!now && !getpwnam(user.c_str()))
    return plan.refuse(path, "is no user of this host: adduser " + user + " makes one");
  if (now) {
    ++plan.changed;
    plan.note('~', path, shown(now) + " → " + shown(names));
  } else {
    ++plan.added;
    plan.note('+', path, '(' + shown(names) + ')');
  }
  plan.steps.push_back({Phase::Change, path, [value = user + '|' + std::to_string(mask)] {
                          return call("/ormel/privilege/set", {{"user", value}});
                        }});
  return true;
}

// The default gateway.

// The type and number of a profile by its key; a profile of the document may not be there yet.
bool add_tunnel(const std::string& name, const std::string& key, Form& form) {
  for (const auto& holder : cm.config_pool) {
    if ((holder->bc->type & ALL_CLIENTS) == 0 || key_of(cm, *holder->bc) != key) continue;
    form.emplace_back(name + "_type", std::to_string(holder->bc->type));
    form.emplace_back(name + "_index", std::to_string(holder->bc->index));
    return true;
  }
  return false;
}

bool is_profile(const std::string& key, const Plan& plan) {
  return std::ranges::any_of(std::array{plan.document, plan.now}, [&](const json_t* site) {
    return json_object_get(json_object_get(site, "profiles"), key.c_str()) != nullptr;
  });
}

Reply set_gateway(const json_t* policy) {
  if (!json_is_true(json_object_get(policy, "on")))
    return call("/ormel/gateway/set", {{"as_gw_en", "0"}});
  const bool has_second = json_object_get(policy, "second") != nullptr;
  Form form{{"as_gw_en", "1"},
            {"snat", json_is_false(json_object_get(policy, "snat")) ? "0" : "1"},
            {"failover_en", has_second ? "1" : "0"}};
  if (!add_tunnel("gw1", text_of(policy, "first"), form) ||
      (has_second && !add_tunnel("gw2", text_of(policy, "second"), form)))
    return {.error = ormel::ERR_CONFIGURE_INDEX, .reason = "its profile is not there"};
  const json_t* const back = json_object_get(policy, "back_minutes");
  if (has_second) form.emplace_back("failover_interval", back ? member_text(back) : "5");
  return call("/ormel/gateway/set", form);
}

// Notifications.

Reply ask_keeper(const char* method, const Json& request) {
  const ormel::system::PlainReply answer =
      ormel::system::plain_call(ormel::system::KEEPER_SERVICE, method, request.get());
  if (!json_is_object(answer.document.get()))
    return {.error = ormel::ERR_MIB_CALL_FAILED, .reason = "the keeper does not answer"};
  return {.error = static_cast<int>(number_of(answer.document.get(), "error")),
          .reason = text_of(answer.document.get(), "reason")};
}

std::string joined(const json_t* words) {
  std::string text;
  size_t at = 0;
  const json_t* word = nullptr;
  json_array_foreach(words, at, word) text += (at ? " " : "") + member_text(word);
  return text;
}

Reply set_target(const std::string& name, const Json& object) {
  const json_t* const events = json_object_get(object.get(), "events");
  const Json request{json_pack("{s:s, s:s, s:s, s:s}", "name", name.c_str(), "url",
                               text_of(object.get(), "url").c_str(), "events",
                               events ? joined(events).c_str() : "all", "secret",
                               text_of(object.get(), "secret").c_str())};
  return ask_keeper("notify.set", request);
}

bool plan_target(const std::string& name, const json_t* object, const json_t* now, Plan& plan) {
  const std::string path = "notifications." + name;
  if (!note_object(path, object, now, plan)) return true;
  if (!text_of(object, "url").starts_with("http") &&
      !is_mail_target(json_object_get(object, "url")))
    return plan.refuse(path + ".url", "is neither https://… nor mail:USER");
  const auto whole =
      std::make_shared<Json>(now ? merged(object, now).release() : json_deep_copy(object));
  // The keeper knows best what it takes: it is asked before anything is interrupted.
  plan.steps.push_back({Phase::First, path, [name, whole] { return set_target(name, *whole); }});
  return true;
}

// A policy that is one object.
template <typename Run>
bool plan_single(const char* name, Phase phase, const json_t* wanted, const json_t* now, Plan& plan,
                 Run run) {
  if (!note_object(name, wanted, now, plan)) return true;
  const auto whole = std::make_shared<Json>(merged(wanted, now));
  plan.steps.push_back({phase, name, [whole, run] { return run(whole->get()); }});
  return true;
}

}  // namespace

bool plan_peers(const json_t* wanted, const json_t* now, bool prune, Plan& plan) {
  if (!check_twins(wanted, plan)) return false;
  return walk(
      wanted, now,
      [&](const char* key, const json_t* object, const json_t* stored) {
        return plan_peer(key, object, stored, plan);
      },
      [&](const char* key, const json_t* stored) {
        plan_gone(std::string("peers.") + key, prune, plan,
                  [public_key = text_of(stored, "peer_pub_key")] {
                    return call("/ormel/peer/remove",
                                {{"index", std::to_string(peer_index(public_key))}});
                  });
      });
}

bool plan_access(const json_t* wanted, const json_t* now, bool prune, Plan& plan) {
  return walk(
      wanted, now,
      [&](const char* user, const json_t* grant, const json_t* stored) {
        return plan_grant(user, grant, stored, plan);
      },
      [&](const char* user, const json_t*) {
        plan_gone(
            std::string("access.") + user, prune, plan,
            [name = std::string(user)] {
              const ormel::Json none{json_pack("{s:{}, s:i}", "until", "devices", 0)};
              return set_access(name, none.get());
            },
            Phase::Change);  // after revoked rights, so that none is without its end
      });
}

bool plan_rights(const json_t* wanted, const json_t* now, bool prune, Plan& plan) {
  return walk(
      wanted, now,
      [&](const char* user, const json_t* names, const json_t* stored) {
        return plan_user(user, names, stored, plan);
      },
      [&](const char* user, const json_t*) {
        plan_gone(std::string("rights.") + user, prune, plan, [name = std::string(user)] {
          return call("/ormel/privilege/unset", {{"user", name}});
        });
      });
}

bool plan_block(const json_t* wanted, const json_t* now, bool, Plan& plan) {
  return plan_single("block", Phase::Change, wanted, now, plan, [](const json_t* policy) {
    Form form;
    for (const char* member : {"enable", "limit", "time"})
      form.emplace_back(member, member_text(json_object_get(policy, member)));
    return call("/ormel/privilege/block", form);
  });
}

bool plan_gateway(const json_t* wanted, const json_t* now, bool, Plan& plan) {
  if (json_is_true(json_object_get(wanted, "on")) && !json_object_get(wanted, "first"))
    return plan.refuse("gateway.first", "is missing: the profile that carries the traffic");
  for (const char* member : {"first", "second"}) {
    const std::string name = text_of(wanted, member);
    if (!name.empty() && name != text_of(now, member) && !is_profile(name, plan))
      return plan.refuse(std::string("gateway.") + member, "is no profile");
  }
  return plan_single("gateway", Phase::Last, wanted, now, plan, set_gateway);
}

bool plan_guard(const json_t* wanted, const json_t* now, bool, Plan& plan) {
  const bool off = text_of(wanted, "mode") == "off";
  return plan_single("guard", off ? Phase::Off : Phase::Last, wanted, now, plan,
                     [](const json_t* settings) {
                       Form form;
                       for (const char* member : {"mode", "lan", "ipv6", "dns"})
                         form.emplace_back(member, member_text(json_object_get(settings, member)));
                       return call("/ormel/guard/set", form);
                     });
}

bool plan_notifications(const json_t* wanted, const json_t* now, bool prune, Plan& plan) {
  return walk(
      wanted, now,
      [&](const char* name, const json_t* object, const json_t* stored) {
        return plan_target(name, object, stored, plan);
      },
      [&](const char* name, const json_t*) {
        plan_gone(std::string("notifications.") + name, prune, plan, [target = std::string(name)] {
          return ask_keeper("notify.remove", Json{json_pack("{s:s}", "name", target.c_str())});
        });
      });
}

}  // namespace ormelctl::site
