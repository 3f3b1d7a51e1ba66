// The rules that keep the address pools and ports of all tunnels apart. Each clash is logged where it is found; the
// caller decides what the user is told.
#include <algorithm>
#include <vector>

#include "ormel/config_pool.h"
#include "ormel/drovik.h"
#include "ormel/error.h"
#include "ormel/net.h"
#include "ormel/system_log.h"
#include "ormel/tunnel.h"
#include "ormel/wireguard.h"

namespace ormel::config {

namespace {

using system::is_intersect;
using system::parse_address;

const in_addr POOL_MASK{htonl(0xffffff00)};  // a server's pool is the /24 around its first address

bool same_pool(const in_addr& a, const in_addr& b) {
  return system::calculate_net(a, POOL_MASK) == system::calculate_net(b, POOL_MASK);
}

bool share_address(const std::vector<std::string>& a, const std::vector<std::string>& b, std::string& shared) {
  const auto found = std::find_first_of(b.begin(), b.end(), a.begin(), a.end());
  if (found == b.end()) return false;
  shared = *found;
  return true;
}

}  // namespace

bool Management::ip_pool_available(TYPE type, const in_addr& addr, const in_addr& mask) const {
  for (const TunnelFacts& facts : TUNNELS) {
    if (facts.server == type || facts.server == WIREGUARD_SERVER_TYPE) continue;
    const PolyConfig* stored = fetch(facts.server, 0);
    in_addr other{};
    if (!stored || !(*stored)->enable || !parse_address(stored->cast<ServerConfig>()->ip_begin, other)) continue;
    if (type == WIREGUARD_SERVER_TYPE ? is_intersect(addr, mask, other, POOL_MASK) : same_pool(addr, other)) {
      ORMEL_LOG(ERROR, "%s: ip pool conflict with %s server.\n", __func__, facts.log_name);
      return false;
    }
  }
  if (type != WIREGUARD_SERVER_TYPE) {
    const PolyConfig* stored = fetch(WIREGUARD_SERVER_TYPE, 0);
    const auto* server = stored ? stored->cast<wireguard::ServerConfig>() : nullptr;
    in_addr other{};
    in_addr other_mask{};
    if (server && server->enable && parse_address(server->server_ip, other) &&
        parse_address(server->server_mask_str, other_mask) && is_intersect(addr, mask, other, other_mask)) {
      ORMEL_LOG(ERROR, "%s: ip pool conflict with WireGuard server.\n", __func__);
      return false;
    }
  }
  for (const auto& record : config_pool) {
    if ((*record)->type != WIREGUARD_CLIENT_TYPE) continue;
    const auto* client = record->cast<wireguard::ClientConfig>();
    in_addr other{};
    in_addr other_mask{};
    if (parse_address(client->client_ip, other) && parse_address(client->client_mask_str, other_mask) &&
        is_intersect(addr, mask, other, other_mask)) {
      ORMEL_LOG(ERROR, "%s: ip pool conflict with WireGuard client. client index: %d, client ip: %s.\n", __func__,
                client->index, client->client_ip.c_str());
      return false;
    }
  }
  return true;
}

bool Management::check_wireguard_peer_ip(const std::string& ip, const std::string& mask) const {
  const PolyConfig* stored = fetch(WIREGUARD_SERVER_TYPE, 0);
  const auto* server = stored ? stored->cast<wireguard::ServerConfig>() : nullptr;
  in_addr peer{};
  in_addr peer_mask{};
  in_addr own{};
  in_addr own_mask{};
  if (server && parse_address(ip, peer) && parse_address(mask, peer_mask) && parse_address(server->server_ip, own) &&
      parse_address(server->server_mask_str, own_mask) && is_intersect(peer, peer_mask, own, own_mask)) {
    return true;
  }
  ORMEL_LOG(ERROR, "%s: peer ip is not in server. peer ip: %s/%s, server ip: %s/%s\n", __func__, ip.c_str(),
            mask.c_str(), server ? server->server_ip.c_str() : "", server ? server->server_mask_str.c_str() : "");
  return false;
}

int Management::check_wireguard_client_profile(int index, const std::string& client_ip, const std::string& domain_ip,
                                               const std::string& domain_port, int listen_port) {
  sort();
  std::vector<std::string> addresses;
  system::nslookup(domain_ip, addresses);
  for (const auto& record : config_pool) {
    if ((*record)->type != WIREGUARD_CLIENT_TYPE || (*record)->index == index) continue;
    const auto* other = record->cast<wireguard::ClientConfig>();
    if (other->client_ip == client_ip) {
      ORMEL_LOG(ERROR, "wireguard client profile duplicate client ip: %s, index: %d, profile: %s\n", client_ip.c_str(),
                other->index, other->name.c_str());
      return ERR_WIREGUARD_SERVER_CLIENT_DUPLICATE;
    }
    if (listen_port >= 1 && other->port == listen_port) {
      ORMEL_LOG(ERROR, "wireguard client profile duplicate client listen port: %d, index: %d, profile: %s\n",
                listen_port, other->index, other->name.c_str());
      return ERR_WIREGUARD_SERVER_CLIENT_DUPLICATE;
    }
    if (other->domain_port != domain_port) continue;
    if (other->domain_ip == domain_ip) {
      ORMEL_LOG(ERROR, "wireguard client profile duplicate peer_endpoint: %s:%s, index: %d, profile: %s\n",
                domain_ip.c_str(), domain_port.c_str(), other->index, other->name.c_str());
      return ERR_WIREGUARD_SERVER_CLIENT_DUPLICATE;
    }
    std::vector<std::string> others;
    std::string shared;
    system::nslookup(other->domain_ip, others);
    if (share_address(addresses, others, shared)) {
      ORMEL_LOG(ERROR, "wireguard client profile duplicate peer_endpoint: %s:%s, ip: %s, index: %d, profile: %s\n",
                domain_ip.c_str(), domain_port.c_str(), shared.c_str(), other->index, other->name.c_str());
      return ERR_WIREGUARD_SERVER_CLIENT_DUPLICATE;
    }
  }
  return NO_ERROR;
}

int Management::check_drovik_client_profile(int index, int port, const std::string& ip) {
  sort();
  for (const auto& record : config_pool) {
    if ((*record)->type != DROVIK_CLIENT_TYPE || (*record)->index == index) continue;
    const auto* other = record->cast<drovik::ClientConfig>();
    // Two hosts that do not resolve have no address in common.
    if (other->port == port && other->ip == ip && !ip.empty()) {
      ORMEL_LOG(ERROR, "drovik client profile duplicate port:%d, ip:%s\n", port, ip.c_str());
      return ERR_DROVIK_CLIENT_DUPLICATE;
    }
  }
  return NO_ERROR;
}

int Management::check_server_listen_port_with_client(int port) {
  sort();
  for (const auto& record : config_pool) {
    if ((*record)->type != WIREGUARD_CLIENT_TYPE) continue;
    const auto* client = record->cast<wireguard::ClientConfig>();
    if (client->port == port) {
      ORMEL_LOG(ERROR, "wireguard server profile duplicate client listen port: %d, client index: %d, client name: %s\n",
                port, client->index, client->name.c_str());
      return ERR_WIREGUARD_SERVER_CLIENT_DUPLICATE;
    }
  }
  return NO_ERROR;
}

}  // namespace ormel::config
