// The peers of the WireGuard server over the web.
//
// A change goes to the running interface first and then to the peer file; while the server is off,
// to the file alone. Variables are those of the command line's options: `peer_name` (URL-encoded),
// `peer_pub_key`, `peer_allow_ip`
// ("ADDRESS/32"), `peer_endpoint`, `keepalive` and `psk`, and `index` where a peer is named. The
// server's own settings in such a form are ignored. `list`, `add`, `modify` and `remove` answer
// with the peers as they are then, in the form of the server's record; `keys` with a new key pair,
// `pri_key` and `pub_key`, of which nothing is kept here.
//
// A limit keeps a peer out from a second on, `since`: of the past for a peer that is disabled. The
// platform's list of those who are kept out has it by public key, so it follows a peer to another
// key and goes with the peer.
#include "ormel/web/peer.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <ctime>
#include <fcntl.h>
#include <optional>
#include <sys/file.h>
#include <thread>
#include <utility>

#include "base/file.h"
#include "ormel/base/http.h"
#include "ormel/base/log.h"
#include "ormel/base/text.h"
#include "ormel/config/pool.h"
#include "ormel/drivers/wireguard/peers.h"
#include "ormel/drivers/wireguard/wireguard.h"
#include "ormel/host/process.h"
#include "ormel/options/table.h"
#include "ormel/web/grant.h"
#include "ormel/web/hold.h"
#include "ormel/web/routes.h"

namespace ormel::cgi::peer {

using ormel::config::cm;
using ormel::config::PolyConfig;
using wireguard::ServerConfig;

namespace {

constexpr size_t NAME_LIMIT = 1800;     // bytes of a name of 600 when all of them are URL-encoded
constexpr int KEEPALIVE_LIMIT = 65535;  // seconds, what the tool takes

// What a request may set. No other option: the work record must stay the server that is stored.
struct Variable {
  const char* name;
  bool needed;  // of a new peer
};
constexpr Variable VARIABLES[] = {
    {"peer_name", true},      {"peer_pub_key", true}, {"peer_allow_ip", true},
    {"peer_endpoint", false}, {"keepalive", false},   {"psk", false},
};

}  // namespace

Turn::Turn()
    : fd_(open("/run/fenro/peers.lock", O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW,
               fenro::PRIVATE_FILE)) {
  constexpr auto LONGEST_WAIT = std::chrono::seconds(10);
  constexpr auto PAUSE = std::chrono::milliseconds(20);
  const auto end = std::chrono::steady_clock::now() + LONGEST_WAIT;
  while (fd_ && flock(fd_.get(), LOCK_EX | LOCK_NB) != 0 && std::chrono::steady_clock::now() < end)
    std::this_thread::sleep_for(PAUSE);
}

std::unique_ptr<PolyConfig> stored_server() {
  if (cm.config_pool.empty()) cm.load();
  return cm.clone(WIREGUARD_SERVER_TYPE, 0);
}

namespace {

void take(const wireguard::Peer& peer, ServerConfig& server) {
  server.peer_name = peer.name;
  server.peer_pub_key = peer.pub_key;
  server.peer_allow_ip = peer.allow_ip;
  server.peer_allow_ip_mask = peer.allow_ip_mask;
  server.peer_endpoint = peer.endpoint;
  server.keepalive = to_int(peer.keepalive.c_str());
  server.psk = peer.psk;
}

int show_peers(JsonValue& reply) {
  wireguard::show_peers(reply["data"], wireguard::PeerFile(wireguard::FOLDER));
  return NO_ERROR;
}

// What the form leaves out of a peer that is edited.
void take_stored_values(ServerConfig& server, int index) {
  take(wireguard::PeerFile(server.folder).peer(index), server);
}

int apply_form(const Request& request, PolyConfig& record, bool is_new) {
  option::CommandOptions options;
  ormel::config::BaseConfig* work = record.bc.get();
  for (const Variable& row : VARIABLES) {
    cgi_var* const var = request.find(row.name);
    if (!var && is_new && row.needed) return ERR_MISS_OPTION;
    if (!var) continue;
    if (const int rc = option::apply_cmd_option(&work, options, var); rc != NO_ERROR) {
      ORMEL_LOG(ERROR, "error option: %s", row.name);
      return rc;
    }
  }
  const auto& server = *record.cast<ServerConfig>();
  if (server.peer_name.size() > NAME_LIMIT) return ERR_NAME_LENGTH;
  return server.keepalive < 0 || server.keepalive > KEEPALIVE_LIMIT ? ERR_VALUE : NO_ERROR;
}

// Puts the peer in work in place: a new one with index 0.
int put(ServerConfig& server, int index) {
  if (const int rc = server.check_peer_value(index); rc != NO_ERROR) return rc;
  if (server.enable) {
    if (const int rc = server.enable_peer(index); rc != NO_ERROR) return rc;
  }
  return index == 0 ? server.add_peer() : server.modify_peer(index);
}

// The same with the peer of the form.
int put(const Request& request, int index) {
  const auto record = stored_server();
  if (!record) return ERR_CONFIGURE_INDEX;
  auto& server = *record->cast<ServerConfig>();
  if (index != 0) take_stored_values(server, index);
  if (const int rc = apply_form(request, *record, index == 0); rc != NO_ERROR) return rc;
  return put(server, index);
}

int take_away(int index) {
  const auto record = stored_server();
  if (!record) return ERR_CONFIGURE_INDEX;
  auto& server = *record->cast<ServerConfig>();
  if (server.enable) {
    if (const int rc = server.disable_peer(index); rc != NO_ERROR) return rc;
  }
  return server.delete_peer(index);
}

// The peer that a request names. 0, ERR_MISS_OPTION or ERR_VALUE.
int read_index(const Request& request, int& index) {
  if (!request.filled("index")) return ERR_MISS_OPTION;
  index = request.number("index", 0);
  return index >= 1 && index <= wireguard::MAX_PEER_INDEX ? NO_ERROR : ERR_VALUE;
}

constexpr const char* SERVER_SCRIPT = "/etc/init.d/vpn_wireguard.sh";
constexpr int64_t NO_END = 253402300799;  // the last second of the year 9999

wireguard::Peer stored_peer(int index) {
  return wireguard::PeerFile(wireguard::FOLDER).peer(index);
}

int set_limit(const wireguard::Peer& peer, int64_t since, const std::string& by) {
  std::string name;
  if (system::decode_urlEncoded(peer.name, name) != NO_ERROR) name = peer.name;
  return hold::run({"limit", peer.pub_key, std::to_string(since), name, by}) == 0 ? NO_ERROR
                                                                                  : ERR_SAVE_FILE;
}

int lift_limit(const std::string& key) {
  const int rc = hold::run({"unlimit", key});
  return rc == 0 || rc == hold::NOT_FOUND ? NO_ERROR : ERR_SAVE_FILE;
}

// A change puts the peer on the running interface, even when it is kept out.
int keep_limits(const std::string& old_key, int index) {
  if (!hold::has_list()) return NO_ERROR;
  const wireguard::Peer peer = stored_peer(index);
  if (peer.pub_key != old_key) {
    const Json limits = hold::rows("limits");
    if (const int64_t since = hold::limit_of(limits.get(), old_key); since != 0) {
      const std::string by = hold::limiter_of(limits.get(), old_key);
      if (const int rc = set_limit(peer, since, by); rc != NO_ERROR) return rc;
      if (const int rc = lift_limit(old_key); rc != NO_ERROR) return rc;
    }
  }
  std::string unused;
  return system::do_exec_safe({SERVER_SCRIPT, "sync_peers"}, unused) == 0 ? NO_ERROR
                                                                          : ERR_CMD_FAILED;
}

int list_peers(const Request&, JsonValue& reply) {
  return show_peers(reply);
}

int add_peer(const Request& request, JsonValue& reply) {
  const Turn turn;
  const int rc = put(request, 0);
  return rc == NO_ERROR ? show_peers(reply) : rc;
}

int modify_peer(const Request& request, JsonValue& reply) {
  int index = 0;
  int rc = read_index(request, index);
  std::optional<Turn> turn{std::in_place};
  const std::string old_key = rc == NO_ERROR ? stored_peer(index).pub_key : "";
  if (rc == NO_ERROR) rc = put(request, index);
  turn.reset();  // grants are never locked during a turn
  if (rc == NO_ERROR) grant::on_key(old_key, stored_peer(index).pub_key);
  if (rc == NO_ERROR) rc = keep_limits(old_key, index);
  return rc == NO_ERROR ? show_peers(reply) : rc;
}

int remove_peer(const Request& request, JsonValue& reply) {
  int index = 0;
  int rc = read_index(request, index);
  std::optional<Turn> turn{std::in_place};
  const std::string key = rc == NO_ERROR ? stored_peer(index).pub_key : "";
  if (rc == NO_ERROR) rc = take_away(index);
  turn.reset();
  if (rc == NO_ERROR && hold::has_list())
    std::ignore = lift_limit(key);  // a limit without its peer does no harm
  if (rc == NO_ERROR) grant::on_key(key, "");
  return rc == NO_ERROR ? show_peers(reply) : rc;
}

Outcome list_limits(const Request&, JsonValue& reply) {
  Json limits = hold::rows("limits");
  if (!limits) return {ERR_CMD_FAILED, "the list of those who are kept out cannot be read"};
  reply["data"] = limits.release();
  return {};
}

// `since` is seconds since 1970: of the past for now, 0 for no limit.
Outcome limit_peer(const Request& request, JsonValue&) {
  int index = 0;
  if (const int rc = read_index(request, index); rc != NO_ERROR) return {rc};
  if (!request.filled("since")) return {ERR_MISS_OPTION};
  const std::string_view text = request.value("since");
  int64_t since = 0;
  const auto [end, failure] = std::from_chars(text.data(), text.data() + text.size(), since);
  if (failure != std::errc{} || end != text.data() + text.size() || since < 0 || since >= NO_END)
    return {ERR_VALUE, "since"};
  const wireguard::Peer peer = stored_peer(index);
  if (peer.pub_key.empty()) return {ERR_CONFIGURE_INDEX};
  const int rc =
      since == 0 ? lift_limit(peer.pub_key) : set_limit(peer, since, hold::asker(request));
  if (rc != NO_ERROR) return {rc, "the list of those who are kept out cannot be changed"};
  return {};
}

int make_keys(const Request&, JsonValue& reply) {
  return ServerConfig(0).gen_pri_pub_keys({}, &reply["data"]);
}

}  // namespace

int add(PolyConfig& server, const wireguard::Peer& peer) {
  auto& work = *server.cast<ServerConfig>();
  take(peer, work);
  return put(work, 0);
}

int remove(const std::string& key) {
  const wireguard::PeerFile peers(wireguard::FOLDER);
  int index = 1;
  while (index <= peers.max_index() && peers.peer(index).pub_key != key) ++index;
  if (index > peers.max_index()) return ERR_CONFIGURE_INDEX;
  const int rc = take_away(index);
  if (rc == NO_ERROR && hold::has_list())
    std::ignore = lift_limit(key);  // a limit without its peer does no harm
  return rc;
}

namespace {

constexpr Route ROWS[] = {
    {"/ormel/peer/list", ADMINISTRATOR, READS, json<list_peers>},
    {"/ormel/peer/add", ADMINISTRATOR, CHANGES, json<add_peer>},
    {"/ormel/peer/modify", ADMINISTRATOR, CHANGES, json<modify_peer>},
    {"/ormel/peer/remove", ADMINISTRATOR, CHANGES, json<remove_peer>},
    {"/ormel/peer/limits", ADMINISTRATOR, READS, json<list_limits>},
    {"/ormel/peer/limit", ADMINISTRATOR, CHANGES, json<limit_peer>},
    {"/ormel/peer/keys", ADMINISTRATOR, READS, json<make_keys>},
};

}  // namespace

const Routes PEERS{ROWS};

}  // namespace ormel::cgi::peer
