// The rules that keep the address pools and ports of all tunnels apart. Each clash is logged where
// it is found; the caller decides what the user sees.
#include <algorithm>
#include <string>
#include <vector>

#include "base/tunnel.h"
#include "ormel/base/address.h"
#include "ormel/base/error.h"
#include "ormel/base/log.h"
#include "ormel/config/pool.h"

namespace ormel::config {

namespace {

using system::is_intersect;
// Whether the tunnel of a record takes addresses of this network.
bool takes(const PolyConfig& record, const in_addr& addr, const in_addr& mask) {
  const std::vector<system::Network> networks = record->networks();
  return std::any_of(networks.begin(), networks.end(), [&](const system::Network& network) {
    return is_intersect(addr, mask, network);
  });
}

// The first network of a record, empty texts if it takes none.
system::Network network_of(const PolyConfig& record) {
  const std::vector<system::Network> networks = record->networks();
  return networks.empty() ? system::Network{} : networks.front();
}

bool share_address(const std::vector<std::string>& a, const std::vector<std::string>& b,
                   std::string& shared) {
  const auto found = std::find_first_of(b.begin(), b.end(), a.begin(), a.end());
  if (found == b.end()) return false;
  shared = *found;
  return true;
}

}  // namespace

bool Management::ip_pool_available(TYPE type, const in_addr& addr, const in_addr& mask) const {
  const in_addr pool_mask{htonl(0xffffff00)};
  for (const TunnelFacts& facts : TUNNELS) {
    const PolyConfig* stored = facts.server == type ? nullptr : fetch(facts.server, 0);
    if (!stored || !(*stored)->enable) continue;
    const bool two_pools = type != WIREGUARD_SERVER_TYPE && facts.server != WIREGUARD_SERVER_TYPE;
    if (takes(*stored, addr, two_pools ? pool_mask : mask)) {
      ORMEL_LOG(ERROR, "%s: ip pool conflict with %s server.\n", __func__, facts.log_name);
      return false;
    }
  }
  for (const auto& record : config_pool) {
    if (!is_client((*record)->type) || !takes(*record, addr, mask)) continue;
    ORMEL_LOG(ERROR, "%s: ip pool conflict with %s client. client index: %d, client ip: %s.\n",
              __func__, tunnel_of((*record)->type).log_name, (*record)->index,
              network_of(*record).address.c_str());
    return false;
  }
  return true;
}

bool Management::check_wireguard_peer_ip(const std::string& ip, const std::string& mask) const {
  const PolyConfig* server = fetch(WIREGUARD_SERVER_TYPE, 0);
  const system::Network own = server ? network_of(*server) : system::Network{};
  if (is_intersect({ip, mask}, own)) return true;
  ORMEL_LOG(ERROR, "%s: peer ip is not in server. peer ip: %s/%s, server ip: %s/%s\n", __func__,
            ip.c_str(), mask.c_str(), own.address.c_str(), own.mask.c_str());
  return false;
}

int Management::check_wireguard_client_profile(int index, const std::string& client_ip,
                                               const std::string& domain_ip,
                                               const std::string& domain_port, int listen_port) {
  sort();
  std::vector<std::string> addresses;
  system::nslookup(domain_ip, addresses);
  for (const auto& record : config_pool) {
    if ((*record)->type != WIREGUARD_CLIENT_TYPE || (*record)->index == index) continue;
    const auto* other = record->cast<ClientConfig>();
    const Endpoint far_end = other->endpoint();
    if (network_of(*record).address == client_ip) {
      ORMEL_LOG(ERROR, "wireguard client profile duplicate client ip: %s, index: %d, profile: %s\n",
                client_ip.c_str(), other->index, other->name.c_str());
      return ERR_WIREGUARD_SERVER_CLIENT_DUPLICATE;
    }
    if (listen_port >= 1 && other->listen_port() == listen_port) {
      ORMEL_LOG(
          ERROR,
          "wireguard client profile duplicate client listen port: %d, index: %d, profile: %s\n",
          listen_port, other->index, other->name.c_str());
      return ERR_WIREGUARD_SERVER_CLIENT_DUPLICATE;
    }
    if (far_end.port != domain_port) continue;
    if (far_end.host == domain_ip) {
      ORMEL_LOG(ERROR,
                "wireguard client profile duplicate peer_endpoint: %s:%s, index: %d, profile: %s\n",
                domain_ip.c_str(), domain_port.c_str(), other->index, other->name.c_str());
      return ERR_WIREGUARD_SERVER_CLIENT_DUPLICATE;
    }
    std::vector<std::string> others;
    std::string shared;
    system::nslookup(far_end.host, others);
    if (share_address(addresses, others, shared)) {
      ORMEL_LOG(ERROR,
                "wireguard client profile duplicate peer_endpoint: %s:%s, ip: %s, index: %d, "
                "profile: %s\n",
                domain_ip.c_str(), domain_port.c_str(), shared.c_str(), other->index,
                other->name.c_str());
      return ERR_WIREGUARD_SERVER_CLIENT_DUPLICATE;
    }
  }
  return NO_ERROR;
}

int Management::check_drovik_client_profile(int index, int port, const std::string& ip) {
  sort();
  for (const auto& record : config_pool) {
    if ((*record)->type != DROVIK_CLIENT_TYPE || (*record)->index == index) continue;
    const Endpoint far_end = (*record)->endpoint();
    // Two hosts that do not resolve have no address in common.
    if (far_end.port == std::to_string(port) && far_end.host == ip && !ip.empty()) {
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
    const auto* client = record->cast<ClientConfig>();
    if (client->listen_port() == port) {
      ORMEL_LOG(ERROR,
                "wireguard server profile duplicate client listen port: %d, client index: %d, "
                "client name: %s\n",
                port, client->index, client->name.c_str());
      return ERR_WIREGUARD_SERVER_CLIENT_DUPLICATE;
    }
  }
  return NO_ERROR;
}

}  // namespace ormel::config
