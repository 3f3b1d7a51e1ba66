// The peer operations of the WireGuard server.
#include "ormel/base/error.h"
#include "ormel/base/http.h"
#include "ormel/base/log.h"
#include "ormel/config/pool.h"
#include "ormel/drivers/wireguard/key.h"
#include "ormel/drivers/wireguard/peers.h"
#include "ormel/drivers/wireguard/tool.h"
#include "ormel/drivers/wireguard/wireguard.h"
#include "ormel/host/notification.h"

namespace ormel::wireguard {

namespace {

using Words = std::vector<std::string>;

void notify_peer(const nc_msg_struct& message, const Peer& peer) {
  std::string name;
  std::ignore = system::decode_urlEncoded(peer.name, name);  // the peer counts, not its name
  const std::string address = peer.allow_ip + '/' + peer.allow_ip_mask;
  nclog::notify_send(&message, name.c_str(), peer.endpoint.empty() ? " " : peer.endpoint.c_str(),
                     address.c_str(), peer.keepalive.c_str(), nullptr);
}

Words removal_of(const std::string& pub_key) {
  return {"set", SERVER_INTERFACE, "peer", pub_key, "remove"};
}

// A peer that is edited may be installed with an old key.
int remove_old_key(const std::string& pub_key) {
  const Words command = removal_of(pub_key);
  ORMEL_LOG(WARN, "remove peer cmd: %s", command_text(command).c_str());
  const ToolRun run = run_wg(command);
  if (run.rc == 0) return NO_ERROR;
  ORMEL_LOG(ERROR, "Failed to remove peer, ret=%d, output: %s", run.rc, run.output.c_str());
  return ERR_CMD_FAILED;
}

}  // namespace

Peer ServerConfig::peer_in_work() const {
  return {peer_name,
          peer_pub_key,
          peer_allow_ip,
          peer_allow_ip_mask,
          peer_endpoint,
          std::to_string(keepalive),
          psk};
}

int ServerConfig::check_peer_value(int peer) {
  const PeerFile peers(folder);
  if (peer != 0 && peers.is_free(peer)) {
    ORMEL_LOG(ERROR, "peer index is empty. %d", peer);
    return ERR_VALUE;
  }
  if (const int rc = check_key(peer_pub_key); rc != NO_ERROR) {
    ORMEL_LOG(ERROR, "wireguard peer wrong pub key: %s", peer_pub_key.c_str());
    return rc;
  }
  if (!psk.empty() && check_key(psk) != NO_ERROR) {
    ORMEL_LOG(ERROR, "wireguard peer psk wrong psk: %s", psk.c_str());
    return error_message(ERR_VALUE, "psk");
  }
  if (peer_allow_ip == server_ip) {
    ORMEL_LOG(ERROR, "ip conflict. server ip: %s, peer ip: %s.", server_ip.c_str(),
              peer_allow_ip.c_str());
    return ERR_IP_POOL_CONFLICT;
  }
  return peers.find_conflict(peer, peer_in_work());
}

int ServerConfig::add_peer() {
  const Peer peer = peer_in_work();
  if (const int rc = PeerFile(folder).add(peer); rc != NO_ERROR) return rc;
  notify_peer(nc_message("C001", "0023"), peer);
  return NO_ERROR;
}

int ServerConfig::modify_peer(int peer) {
  const Peer values = peer_in_work();
  if (const int rc = PeerFile(folder).replace(peer, values); rc != NO_ERROR) return rc;
  notify_peer(nc_message("C001", "0025"), values);
  return NO_ERROR;
}

int ServerConfig::delete_peer(int peer) {
  PeerFile peers(folder);
  const Peer values = peers.peer(peer);
  if (values.allow_ip.empty()) {
    ORMEL_LOG(ERROR, "allow_ip is empty. index: %d", peer);
    return ERR_VALUE;
  }
  if (const int rc = peers.remove(peer); rc != NO_ERROR) return rc;
  notify_peer(nc_message("C001", "0024"), values);
  return NO_ERROR;
}

// The command that installs the peer in work; its pre-shared key is written where the tool reads
// it.
int ServerConfig::installation_of(const PeerFile& peers, int peer,
                                  std::vector<std::string>& command) const {
  command = {"set",        SERVER_INTERFACE, "peer",
             peer_pub_key, "allowed-ips",    peer_allow_ip + '/' + peer_allow_ip_mask};
  if (!psk.empty()) {
    const int place = peer == 0 ? peers.next_index() : peer;
    if (peers.write_psk(place, psk) != NO_ERROR)
      return ERR_CMD_FAILED;  // the tool would not find its key
    command.insert(command.end(), {"preshared-key", peers.psk_path(place)});
  }
  if (!peer_endpoint.empty()) command.insert(command.end(), {"endpoint", peer_endpoint});
  if (keepalive != 0)
    command.insert(command.end(), {"persistent-keepalive", std::to_string(keepalive)});
  return NO_ERROR;
}

int ServerConfig::enable_peer(int peer) {
  const PeerFile peers(folder);
  const std::string old_key = peers.peer(peer).pub_key;
  if (!old_key.empty()) {
    if (const int rc = remove_old_key(old_key); rc != NO_ERROR) return rc;
  }

  Words command;
  if (const int rc = installation_of(peers, peer, command); rc != NO_ERROR) return rc;
  ORMEL_LOG(WARN, "cmd: %s", command_text(command).c_str());
  const ToolRun run = run_wg(command);
  if (run.rc == NO_BUFFERS) {
    ORMEL_LOG(ERROR, "Cannot allocate memory!");
    return ERR_NO_MEMORY;
  }
  ORMEL_LOG(WARN, "add peer output: %s, stderr: %s", run.output.c_str(), run.errors.c_str());
  if (run.rc == 0) return NO_ERROR;
  ORMEL_LOG(ERROR, "Couldn't add peer");
  return ERR_CMD_FAILED;
}

int ServerConfig::disable_peer(int peer) {
  const std::string pub_key = PeerFile(folder).peer(peer).pub_key;
  if (pub_key.empty()) return NO_ERROR;  // nothing is installed
  const Words command = removal_of(pub_key);
  ORMEL_LOG(INFO, "disable peer cmd: %s", command_text(command).c_str());
  const ToolRun run = run_wg(command);
  ORMEL_LOG(INFO, "disable peer output: %s, error: %s", run.output.c_str(), run.errors.c_str());
  if (run.rc == 0) return NO_ERROR;
  ORMEL_LOG(ERROR, "Disable peer return code: %d", run.rc);
  return ERR_WIREGUARD_SERVER_DELETE_PEER;
}

int ServerConfig::modify_peers_ip() {
  const config::PolyConfig* stored = config::cm.fetch(WIREGUARD_SERVER_TYPE, 0);
  if (!stored || stored->cast<ServerConfig>()->server_ip == server_ip) return NO_ERROR;
  return PeerFile(folder).renumber(server_ip.substr(0, server_ip.rfind('.') + 1));
}

}  // namespace ormel::wireguard
