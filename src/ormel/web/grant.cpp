#include "ormel/web/grant.h"

#include <algorithm>
#include <charconv>
#include <pwd.h>
#include <string_view>

#include "base/tunnel.h"
#include "ormel/base/http.h"
#include "ormel/base/log.h"
#include "ormel/base/text.h"
#include "ormel/drivers/wireguard/peers.h"
#include "ormel/drivers/wireguard/wireguard.h"
#include "ormel/host/bus.h"
#include "ormel/web/hold.h"
#include "ormel/web/routes.h"

namespace ormel::cgi::grant {

namespace {

constexpr const char* STORE_FAULT =
    "grants.json cannot be changed: it is damaged (ormelctl doctor says what to do), or there is "
    "no "
    "space on /var/lib/ormel";

// The servers that a grant can be of.
constexpr int GRANTED = [] {
  int mask = WIREGUARD_SERVER_TYPE;
  for (const TYPE right : RIGHTS) mask |= right;
  return mask;
}();

// Stores the grant of one user as `edit` leaves it, unless that returns false. False when it could
// not be stored.
template <typename Edit>
bool change(const std::string& user, Edit edit) {
  fenro::GrantChange store;
  if (!store) return false;
  fenro::Grant grant = store.book.of(user);
  if (!edit(grant)) return true;
  store.book.put(std::move(grant));
  return store.save();
}

void report(const std::string& user, bool stored) {
  if (!stored) ORMEL_LOG(ERROR, "%s: %s", escape_json(user).c_str(), STORE_FAULT);
}

std::string device_name(const std::string& key) {
  const wireguard::PeerFile peers(wireguard::FOLDER);
  for (int index = 1; index <= peers.max_index(); ++index) {
    const wireguard::Peer peer = peers.peer(index);
    std::string name;
    if (peer.pub_key == key && system::decode_urlEncoded(peer.name, name) == NO_ERROR) return name;
  }
  return key;
}

bool keep_out_from(const std::string& key, int64_t since) {
  return hold::run({"limit", key, std::to_string(since), device_name(key), END_OF_ACCESS}) == 0;
}

bool let_in(const std::string& key) {
  const int rc = hold::has_list() ? hold::run({"unlimit", key}) : hold::NOT_FOUND;
  return rc == 0 || rc == hold::NOT_FOUND;
}

// Whether a date is obsolete after a change of rights.
bool is_done_with(uint32_t server, int64_t end, int before, int after, std::time_t now) {
  const bool lost = (before & ~after & static_cast<int>(server)) != 0;
  const bool gained = (after & ~before & static_cast<int>(server)) != 0;
  return end > now ? lost : gained;
}

}  // namespace

void on_rights(const std::string& user, int before, int after) {
  if (before == after || !fenro::has_grants()) return;
  const std::time_t now = std::time(nullptr);
  report(user, change(user, [&](fenro::Grant& grant) {
           return std::erase_if(grant.until, [&](const auto& row) {
                    return is_done_with(row.first, row.second, before, after, now);
                  }) > 0;
         }));
}

void on_revocation(const std::string& user) {
  if (!fenro::has_grants()) return;
  const std::time_t now = std::time(nullptr);
  const bool stored = change(user, [&](fenro::Grant& grant) {
    if (grant.is_empty()) return false;
    grant.devices = 0;
    std::erase_if(grant.until, [&](const auto& row) {
      return row.second > now || row.first == WIREGUARD_SERVER_TYPE;
    });
    return true;
  });
  report(user, stored && apply_limits(fenro::read_grants(), user));
}

void on_key(const std::string& old_key, const std::string& new_key) {
  if (old_key == new_key || !fenro::has_grants()) return;
  fenro::GrantChange store;
  if (store && store.book.owner_of(old_key).empty()) return;
  if (store) store.book.replace_key(old_key, new_key);
  report(new_key, store && store.save());
}

bool forget_ended(const std::string& user, int rights, std::time_t now) {
  bool devices = false;
  const bool stored = change(user, [&](fenro::Grant& grant) {
    devices = (grant.ended(now) & WIREGUARD_SERVER_TYPE) != 0;
    if (devices) grant.devices = 0;
    return std::erase_if(grant.until, [&](const auto& row) {
             return row.second <= now && (rights & static_cast<int>(row.first)) == 0;
           }) > 0;
  });
  return stored && (!devices || apply_limits(fenro::read_grants(), user));
}

bool apply_limits(const fenro::GrantBook& book, const std::string& user) {
  const fenro::Grant grant = book.of(user);
  const std::vector<std::string> keys = book.keys_of(user);
  if (keys.empty()) return true;
  const Json limits = hold::has_list() ? hold::rows("limits") : Json{json_array()};
  if (!limits) return false;
  const int64_t since =
      grant.devices == 0 ? int64_t{std::time(nullptr)} : grant.end_of(WIREGUARD_SERVER_TYPE);
  return std::ranges::all_of(keys, [&](const std::string& key) {
    const std::string by = hold::limiter_of(limits.get(), key);
    const bool by_hand = !by.empty() && by != END_OF_ACCESS;
    if (by_hand && (since == 0 || since >= hold::limit_of(limits.get(), key))) return true;
    return since == 0 ? let_in(key) : keep_out_from(key, since);
  });
}

bool lift_end(const std::string& key) {
  if (!hold::has_list()) return true;
  const Json limits = hold::rows("limits");
  if (!limits) return false;
  return hold::limiter_of(limits.get(), key) != END_OF_ACCESS || let_in(key);
}

namespace {

void show(const fenro::GrantBook& book, const fenro::Grant& grant, JsonValue& row) {
  row["user"] = system::valid_utf8(grant.user);
  row["devices"] = grant.devices;
  row["in_use"] = static_cast<int32_t>(book.keys_of(grant.user).size());
  JsonValue& until = row["until"].make_object();
  for (const auto& [server, end] : grant.until) until[std::to_string(server)] = end;
}

Outcome list(const Request&, JsonValue& reply) {
  const fenro::GrantBook book = fenro::read_grants();
  if (book.damaged) return {ERR_WRONG_JSON_FORMAT, STORE_FAULT};
  JsonValue& data = reply["data"].make_array();
  for (const fenro::Grant& grant : book.grants) {
    auto row = std::make_unique<JsonValue>();
    show(book, grant, *row);
    data.append(std::move(row));
  }
  return {};
}

// A number from `least` to `most`.
template <typename Number>
bool read_number(std::string_view text, Number least, Number most, Number& out) {
  const auto [end, failure] = std::from_chars(text.data(), text.data() + text.size(), out);
  return failure == std::errc{} && end == text.data() + text.size() && out >= least && out <= most;
}

// What a request wants of a grant.
struct Wish {
  int servers = 0;
  int64_t until = 0;
  bool has_devices = false;
  int devices = 0;
};

Outcome read_wish(const Request& request, Wish& wish) {
  const auto least = int64_t{std::time(nullptr)} + 1;
  if (!request.filled("user")) return {ERR_MISS_OPTION, "user"};
  if (request.filled("type") && (!read_number(request.value("type"), 0, GRANTED, wish.servers) ||
                                 (wish.servers & ~GRANTED) != 0))
    return {ERR_VALUE, "type"};
  if (request.filled("until") && std::string_view(request.value("until")) != "0" &&
      !read_number(request.value("until"), least, fenro::LAST_SECOND, wish.until))
    return {ERR_VALUE, "until"};
  wish.has_devices = request.filled("devices");
  if (wish.has_devices &&
      !read_number(request.value("devices"), 0, fenro::MOST_DEVICES, wish.devices))
    return {ERR_VALUE, "devices"};
  // The grant of a deleted account can be removed.
  const bool gives = wish.until != 0 || wish.devices != 0;
  if (gives && !getpwnam(request.value("user"))) return {ERR_VALUE, "user"};
  return {};
}

void grant_wish(const Wish& wish, fenro::Grant& grant) {
  for (const TunnelFacts& facts : TUNNELS) {
    if ((wish.servers & facts.server) == 0) continue;
    if (wish.until == 0) {
      grant.until.erase(static_cast<uint32_t>(facts.server));
    } else {
      grant.until[static_cast<uint32_t>(facts.server)] = wish.until;
    }
  }
  if (wish.has_devices) grant.devices = wish.devices;
}

// `until`, seconds since 1970 or 0 for no end, is that of all servers in `type`.
Outcome set(const Request& request, JsonValue&) {
  Wish wish;
  if (Outcome wrong = read_wish(request, wish); wrong.code != NO_ERROR) return wrong;
  const std::string user = request.value("user");
  const bool stored = change(user, [&](fenro::Grant& grant) {
    grant_wish(wish, grant);
    return true;
  });
  if (!stored) return {ERR_SAVE_FILE, STORE_FAULT};
  const bool devices = wish.has_devices || (wish.servers & WIREGUARD_SERVER_TYPE) != 0;
  if (devices && !apply_limits(fenro::read_grants(), user))
    return {ERR_CMD_FAILED,
            "a device of the user could not be kept out, or let in: see the limits "
            "of the WireGuard server's devices"};
  return {};
}

constexpr Route ROWS[] = {
    {"/ormel/grant/list", ADMINISTRATOR, READS, json<list>},
    {"/ormel/grant/set", ADMINISTRATOR, CHANGES, json<set>},
};

}  // namespace

const Routes GRANTS{ROWS};

}  // namespace ormel::cgi::grant
