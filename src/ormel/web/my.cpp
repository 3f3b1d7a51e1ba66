// What every user may see and do about their own access: the only user that these routes know is
// the one of the session. No variable names another one.
#include <algorithm>
#include <cstdio>
#include <ctime>
#include <sys/mman.h>

#include "base/grants.h"
#include "base/second_factor.h"
#include "base/tunnel.h"
#include "ormel/actions/access.h"
#include "ormel/actions/privilege.h"
#include "ormel/base/http.h"
#include "ormel/base/text.h"
#include "ormel/config/pool.h"
#include "ormel/drivers/openvpn/openvpn.h"
#include "ormel/drivers/wireguard/peers.h"
#include "ormel/drivers/wireguard/wireguard.h"
#include "ormel/host/bus.h"
#include "ormel/host/public_address.h"
#include "ormel/web/config.h"
#include "ormel/web/connection.h"
#include "ormel/web/hold.h"
#include "ormel/web/routes.h"

namespace ormel::cgi::my {

using ormel::config::cm;

namespace {

constexpr size_t LOGINS = 20;

JsonValue& add_row(JsonValue& array) {
  auto item = std::make_unique<JsonValue>();
  JsonValue& row = *item;
  array.append(std::move(item));
  return row;
}

// Whether a server is turned on.
bool is_on(TYPE server) {
  if (cm.config_pool.empty()) cm.load();
  const ormel::config::PolyConfig* const stored = cm.fetch(server, 0);
  return stored && (*stored)->enable;
}

int rights_of(const std::string& user) {
  UserPrivilege rights;
  rights.load();
  return rights.get(user);
}

bool may_use(const std::string& user, TYPE server) {
  return (rights_of(user) & server) != 0 && !fenro::has_ended(user, static_cast<uint32_t>(server));
}

void show_rights(const std::string& user, const fenro::Grant& grant, JsonValue& rows) {
  rows.make_array();
  const int mask = rights_of(user);
  const uint32_t ended = grant.ended(std::time(nullptr));
  for (const TunnelFacts& facts : TUNNELS) {
    const auto server = static_cast<uint32_t>(facts.server);
    if (facts.right_field == 0 || (mask & facts.server) == 0 || (ended & server) != 0) continue;
    JsonValue& row = add_row(rows);
    row["type"] = static_cast<int32_t>(facts.server);
    row["name"] = facts.title;
    row["until"] = grant.end_of(server);
    row["on"] = is_on(facts.server);
  }
}

// The limits of devices as the tool lists them; null on a host without any.
Json device_limits() {
  return hold::has_list() ? hold::rows("limits") : nullptr;
}

void show_device(const wireguard::Peer& peer, int64_t limit, long handshake, JsonValue& row) {
  std::string name;
  if (system::decode_urlEncoded(peer.name, name) != NO_ERROR) name = peer.name;
  row["name"] = system::valid_utf8(name);
  row["key"] = system::valid_utf8(peer.pub_key);
  row["address"] = system::valid_utf8(peer.allow_ip);
  row["handshake"] = static_cast<int64_t>(handshake);
  row["kept_out_since"] = limit;
}

long handshake_of(const std::vector<connection::Device>& live, const std::string& key) {
  for (const connection::Device& device : live) {
    if (device.key == key) return device.handshake;
  }
  return 0;
}

// Only those that still exist: an administrator may have removed one.
void show_devices(const fenro::GrantBook& book, const std::string& user, JsonValue& rows) {
  rows.make_array();
  if (book.keys_of(user).empty()) return;
  const wireguard::PeerFile peers(wireguard::FOLDER);
  const std::vector<connection::Device> live = connection::live_devices();
  const Json limits = device_limits();
  for (int index = 1; index <= peers.max_index(); ++index) {
    const wireguard::Peer peer = peers.peer(index);
    if (!peer.pub_key.empty() && book.owner_of(peer.pub_key) == user)
      show_device(peer, hold::limit_of(limits.get(), peer.pub_key),
                  handshake_of(live, peer.pub_key), add_row(rows));
  }
}

void show_sessions(const std::string& user, JsonValue& rows) {
  rows.make_array();
  connection::append_peers(
      rows, std::time(nullptr),
      [](const connection::vpn_peer& peer, JsonValue& row) {
        row["id"] = system::valid_utf8(connection::name_of(peer));
      },
      [&](const connection::vpn_peer& peer) { return peer.vpn_user == user; });
}

// Null when the log database does not answer, so that the page does not claim that there were no
// logins.
void show_logins(const std::string& user, JsonValue& rows) {
  const auto logins = access::latest_logins(user, LOGINS);
  if (!logins) return;
  rows.make_array();
  for (const access::Login& login : *logins) {
    JsonValue& row = add_row(rows);
    row["type"] = login.server;
    row["time"] = static_cast<int64_t>(login.at);
    row["refused"] = login.refused;
    row["source_ip"] = system::valid_utf8(login.source);
    row["reason"] = system::valid_utf8(login.reason);
  }
}

int64_t held_until(const std::string& user) {
  const Json holds = hold::has_list() ? hold::rows("list") : nullptr;
  return hold::until(holds.get(), "user", user);
}

void show_second_factor(const std::string& user, JsonValue& out) {
  const fenro::SecondFactor factor = fenro::SecondFactors{}.of(user);
  out["state"] = std::string(fenro::name_of(factor.state));
  out["required"] = factor.required;
  out["recovery"] = static_cast<int32_t>(factor.recovery.size());
}

Outcome show(const Request& request, JsonValue& reply) {
  const std::string user = request.name();
  const fenro::GrantBook book = fenro::read_grants();
  const fenro::Grant grant = book.of(user);
  JsonValue& data = reply["data"];
  data["user"] = system::valid_utf8(user);
  show_rights(user, grant, data["rights"]);
  show_second_factor(user, data["second_factor"]);
  data["profile"] = may_use(user, OVPN_SERVER_TYPE) && is_on(OVPN_SERVER_TYPE);
  data["quota"] = grant.devices;
  data["devices_until"] = grant.end_of(WIREGUARD_SERVER_TYPE);
  data["wireguard"] = is_on(WIREGUARD_SERVER_TYPE);
  show_devices(book, user, data["devices"]);
  show_sessions(user, data["sessions"]);
  show_logins(user, data["logins"]);
  const auto failures = access::failures_of(user);
  data["failed"] = failures ? failures->count : 0;
  data["blocked_until"] = static_cast<int64_t>(failures ? failures->until : 0);
  data["held_until"] = held_until(user);
  return {};
}

// A file in memory, at its beginning; null when there is no memory.
File file_of(const std::string& text) {
  File file{fdopen(memfd_create("profile", MFD_CLOEXEC), "w+e")};
  if (file && (std::fwrite(text.data(), 1, text.size(), file.get()) < text.size() ||
               std::fflush(file.get()) != 0))
    file.reset();
  if (file) std::rewind(file.get());
  return file;
}

// Makes the client ask for the code separately and send it with the password.
void ask_for_code(std::string& profile) {
  constexpr const char* LINE = "static-challenge \"Code\" 1\n";
  constexpr std::string_view AFTER = "auth-user-pass\n";
  const size_t at = profile.find(AFTER);
  profile.insert(at == std::string::npos ? 0 : at + AFTER.size(), LINE);
}

int make_own_profile(const Request& request, SentFile& file) {
  if (!may_use(request.name(), OVPN_SERVER_TYPE)) return ERR_ACCESS;
  if (!is_on(OVPN_SERVER_TYPE)) return ERR_NOT_SUPPORT;
  Download profile;
  if (const int rc = config::make_profile(profile, system::public_address()); rc != NO_ERROR)
    return rc;
  if (fenro::SecondFactors{}.of(request.name()).asks()) ask_for_code(profile.body);
  file.head = profile.head;
  file.content = file_of(profile.body);
  return file.content ? NO_ERROR : ERR_NO_MEMORY;
}

// A download leaves a row in the trail, as it says who has the present authority. A refused
// request leaves none, so that no user can flood the trail.
int send_profile(const Request& request, SentFile& file) {
  const int rc = make_own_profile(request, file);
  if (rc != NO_ERROR) request.changes_nothing();
  return rc;
}

// Another user's session counts as missing.
Outcome end(const Request& request, JsonValue&) {
  const std::string user = request.name();
  const std::string id = request.value("id");
  std::vector<connection::vpn_peer> peers;
  connection::read_peers(peers);
  const auto own = std::ranges::find_if(peers, [&](const connection::vpn_peer& peer) {
    return peer.vpn_user == user && connection::name_of(peer) == id;
  });
  if (own == peers.end()) {
    request.changes_nothing();
    return {ERR_CONFIGURE_INDEX, "you are not connected there"};
  }
  if (connection::end_peer(*own)) return {};
  return {ERR_KILL_PROCESS, "the connection is still there: tell an administrator"};
}

constexpr Route ROWS[] = {
    {"/ormel/my/show", ANY_SESSION, READS, json<show>},
    {"/ormel/my/profile", ANY_SESSION, CHANGES, file<send_profile>},
    {"/ormel/my/end", ANY_SESSION, CHANGES, json<end>},
};

}  // namespace

const Routes OWN{ROWS};

}  // namespace ormel::cgi::my
