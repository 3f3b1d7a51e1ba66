// The WireGuard devices that a user adds and removes. A device belongs to the user who has added
// it; the store of grants knows it by its public key.
#include <algorithm>
#include <ctime>

#include <fenro/host.h>

#include "base/base64.h"
#include "base/file.h"
#include "base/grants.h"
#include "base/utf8.h"
#include "ormel/base/text.h"
#include "ormel/drivers/wireguard/device.h"
#include "ormel/drivers/wireguard/key.h"
#include "ormel/drivers/wireguard/wireguard.h"
#include "ormel/host/public_address.h"
#include "ormel/web/grant.h"
#include "ormel/web/hold.h"
#include "ormel/web/peer.h"
#include "ormel/web/routes.h"

namespace ormel::cgi::my {

using wireguard::ServerConfig;

namespace {

constexpr const char* CHANGES_FILE = "/run/fenro/device_changes.json";  // goes with the host's run
constexpr size_t MOST_CHANGES = 10;                                     // of one user in an hour
constexpr int64_t HOUR = 3600;
constexpr size_t NAME_LIMIT = 240;  // bytes
constexpr int ADDRESS_SIZE = 255;
constexpr const char* BUSY =
    "the store of devices is in use, or damaged: try again, or tell an administrator";

int64_t up_time() {
  timespec now{};
  clock_gettime(CLOCK_BOOTTIME, &now);
  return now.tv_sec;
}

// Removes all times but those of the last hour.
void drop_old(json_t* times, int64_t now) {
  for (size_t at = json_array_size(times); at-- > 0;) {
    if (json_integer_value(json_array_get(times, at)) <= now - HOUR) json_array_remove(times, at);
  }
}

// Counts a change of the user's devices. Seconds until it may be tried again, 0 for now, -1 when
// it cannot be counted. The caller holds the lock of the grants.
int64_t count_change(const std::string& user) {
  std::string text;
  std::ignore = fenro::read_file(CHANGES_FILE, text);  // there is none before the first change
  Json all{json_loadb(text.data(), text.size(), 0, nullptr)};
  if (!json_is_object(all.get())) all.reset(json_object());
  const int64_t now = up_time();
  const char* name = nullptr;
  json_t* times = nullptr;
  void* next = nullptr;
  json_object_foreach_safe(all.get(), next, name, times) {
    drop_old(times, now);
    if (json_array_size(times) == 0) json_object_del(all.get(), name);
  }
  const std::string key = fenro::to_base64(user);
  json_t* own = json_object_get(all.get(), key.c_str());
  if (!own && json_object_set_new(all.get(), key.c_str(), own = json_array()) != 0) return -1;
  if (json_array_size(own) >= MOST_CHANGES)
    return json_integer_value(json_array_get(own, 0)) + HOUR - now;
  json_array_append_new(own, json_integer(now));
  const CString written{json_dumps(all.get(), JSON_COMPACT)};
  return written && fenro::replace_file(CHANGES_FILE, written.get(), fenro::PRIVATE_FILE) ? 0 : -1;
}

Outcome count(const std::string& user) {
  constexpr int64_t MINUTE = 60;
  const int64_t wait = count_change(user);
  if (wait == 0) return {};
  if (wait < 0) return {ERR_SAVE_FILE, "the change cannot be counted: is there space on /run?"};
  return {ERR_ACCESS, "no more than 10 changes of devices an hour: try again in " +
                          std::to_string(wait / MINUTE + 1) + " minutes"};
}

// A name that people can read: neither empty nor too long, and without control characters.
int check_name(std::string_view name) {
  if (name.empty() || name.size() > NAME_LIMIT) return ERR_NAME_LENGTH;
  const bool controls =
      std::ranges::any_of(name, [](unsigned char c) { return c < ' ' || c == 0x7f; });
  return controls || fenro::valid_utf8(name) != name ? ERR_VALUE : NO_ERROR;
}

bool exists(const wireguard::PeerFile& peers, const std::string& key) {
  for (int index = 1; index <= peers.max_index(); ++index) {
    if (peers.peer(index).pub_key == key) return true;
  }
  return false;
}

// Forgets devices that an administrator has removed.
void forget_removed(fenro::GrantBook& book, const wireguard::PeerFile& peers) {
  std::erase_if(book.devices,
                [&](const fenro::OwnedDevice& device) { return !exists(peers, device.key); });
}

// Whether the user may have one more.
Outcome check_quota(const fenro::GrantBook& book, const std::string& user) {
  const fenro::Grant grant = book.of(user);
  if ((grant.ended(std::time(nullptr)) & WIREGUARD_SERVER_TYPE) != 0)
    return {ERR_ACCESS, "the right to have devices has ended"};
  if (grant.devices == 0) return {ERR_ACCESS, "no right to have devices: ask an administrator"};
  if (book.keys_of(user).size() < static_cast<size_t>(grant.devices)) return {};
  return {ERR_CONFIGURATION_FULL,
          "no more than " + std::to_string(grant.devices) + " devices: remove one first"};
}

// The host in the file of a device; empty when there is no network.
std::string host_for_devices() {
  std::string host = system::public_address();
  char address[ADDRESS_SIZE] = "";
  if (host.empty() && Get_External_IP(address, ADDRESS_SIZE) >= 0) host = address;
  return host;
}

// A new device, with all that its user gets.
struct Made {
  wireguard::Peer peer{};
  std::string private_key{};
};

int make_device(const ServerConfig& server, const wireguard::PeerFile& peers,
                const std::string& name, Made& made) {
  made.peer.name = wireguard::encoded_name(name);
  made.peer.keepalive = "25";
  made.peer.allow_ip = wireguard::free_address(peers, server.server_ip, server.server_mask);
  if (made.peer.allow_ip.empty()) return ERR_CONFIGURATION_FULL;
  made.peer.psk = wireguard::make_psk();
  if (made.peer.psk.empty()) return ERR_CMD_FAILED;
  const int rc = wireguard::make_private_key(made.private_key);
  return rc == NO_ERROR
             ? wireguard::server_gen_pri_pub_keys(made.private_key, nullptr, made.peer.pub_key)
             : rc;
}

// Stores the owner and the end of the device before the device itself, so that no device is ever
// without them.
Outcome store_device(fenro::GrantChange& store, const std::string& user, const std::string& name,
                     ormel::config::PolyConfig& server, const Made& made) {
  store.book.devices.push_back({made.peer.pub_key, user});
  if (!store.save()) return {ERR_SAVE_FILE, BUSY};
  const int64_t until = store.book.of(user).end_of(WIREGUARD_SERVER_TYPE);
  int rc = until == 0 || hold::run({"limit", made.peer.pub_key, std::to_string(until), name,
                                    grant::END_OF_ACCESS}) == 0
               ? NO_ERROR
               : ERR_CMD_FAILED;
  if (rc == NO_ERROR) rc = peer::add(server, made.peer);
  if (rc == NO_ERROR) return {};
  if (until != 0) std::ignore = hold::run({"unlimit", made.peer.pub_key});  // may stay
  store.book.replace_key(made.peer.pub_key, "");
  std::ignore = store.save();  // the next addition forgets the key, too
  return {rc};
}

void hand_out(const ServerConfig& server, const std::string& host, const std::string& name,
              const Made& made, bool all, JsonValue& data) {
  const wireguard::Hub hub{server.server_pub_key, host,
                           server.port,           server.server_ip,
                           server.server_mask,    server.enable_dns ? server.manual_dns : ""};
  data["name"] = name;
  data["key"] = made.peer.pub_key;
  data["address"] = made.peer.allow_ip;
  data["configuration"] =
      wireguard::configuration(hub, {made.peer.allow_ip, made.private_key, made.peer.psk, all});
}

Outcome add(const Request& request, JsonValue& reply) {
  const std::string name = request.value("name");
  if (const int rc = check_name(name); rc != NO_ERROR) return {rc, "name"};
  const std::string user = request.name();
  fenro::GrantChange store;
  if (!store) return {ERR_SAVE_FILE, BUSY};
  const peer::Turn turn;
  const wireguard::PeerFile peers(wireguard::FOLDER);
  forget_removed(store.book, peers);
  if (Outcome full = check_quota(store.book, user); full.code != NO_ERROR) return full;
  const auto record = peer::stored_server();
  if (!record || !(*record)->enable) return {ERR_NOT_SUPPORT, "the WireGuard server is turned off"};
  const std::string host = host_for_devices();
  if (host.empty()) return {ERR_NO_NETWORK};
  if (Outcome often = count(user); often.code != NO_ERROR) return often;
  auto& server = *record->cast<ServerConfig>();
  Made made;
  if (const int rc = make_device(server, peers, name, made); rc != NO_ERROR) return {rc};
  if (Outcome failed = store_device(store, user, name, *record, made); failed.code != NO_ERROR)
    return failed;
  hand_out(server, host, name, made, std::string_view(request.value("all")) == "1", reply["data"]);
  return {};
}

Outcome remove(const Request& request, JsonValue&) {
  const std::string key = request.value("key");
  const std::string user = request.name();
  fenro::GrantChange store;
  if (!store) return {ERR_SAVE_FILE, BUSY};
  // Another user's device counts as missing.
  if (key.empty() || store.book.owner_of(key) != user)
    return {ERR_CONFIGURE_INDEX, "you have no such device"};
  if (Outcome often = count(user); often.code != NO_ERROR) return often;
  const peer::Turn turn;
  if (exists(wireguard::PeerFile(wireguard::FOLDER), key)) {
    if (const int rc = peer::remove(key); rc != NO_ERROR) return {rc};
  }
  store.book.replace_key(key, "");
  if (!store.save()) return {ERR_SAVE_FILE, BUSY};
  return {};
}

// Requests refused at once leave no row in the audit trail, which users could fill otherwise.
template <DetailedWork work>
Outcome unless_refused(const Request& request, JsonValue& reply) {
  Outcome outcome = work(request, reply);
  constexpr int REFUSALS[] = {ERR_NAME_LENGTH,        ERR_VALUE,           ERR_ACCESS,
                              ERR_CONFIGURATION_FULL, ERR_CONFIGURE_INDEX, ERR_NOT_SUPPORT};
  if (std::ranges::find(REFUSALS, outcome.code) != std::end(REFUSALS)) request.changes_nothing();
  return outcome;
}

constexpr Route ROWS[] = {
    {"/ormel/my/device_add", ANY_SESSION, CHANGES, json<unless_refused<add>>},
    {"/ormel/my/device_remove", ANY_SESSION, CHANGES, json<unless_refused<remove>>},
};

}  // namespace

const Routes DEVICES{ROWS};

}  // namespace ormel::cgi::my
