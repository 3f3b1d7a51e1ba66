// Appliers of what a server's record holds.
#include <arpa/inet.h>
#include <string>

#include "ormel/base/address.h"
#include "ormel/base/handle.h"
#include "ormel/base/log.h"
#include "ormel/base/text.h"
#include "ormel/config/pool.h"
#include "ormel/drivers/openvpn/openvpn.h"
#include "ormel/drivers/ppp.h"
#include "ormel/drivers/wireguard/wireguard.h"
#include "ormel/options/apply.h"

namespace ormel::option {

namespace {

using config::ServerConfig;

const in_addr POOL_MASK{htonl(0xffffff00)};

// An address of 10.0.0.0/8, 172.16.0.0/12 or 192.168.0.0/16.
bool is_private(const in_addr& addr) {
  const uint32_t bits = ntohl(addr.s_addr);
  return bits >> 24 == 10 || bits >> 20 == 0xac1 || bits >> 16 == 0xc0a8;
}

// The first three octets of an address, and ".<last>".
std::string in_pool(const in_addr& addr, uint32_t last) {
  const in_addr member{htonl((ntohl(addr.s_addr) & 0xffffff00) | last)};
  char text[INET_ADDRSTRLEN];
  return inet_ntop(AF_INET, &member, text, sizeof text);
}

// The network that an enabled server takes up. False if its record has no address that says so.
bool network_of(const ServerConfig& server, in_addr& addr, in_addr& mask) {
  if (server.type != WIREGUARD_SERVER_TYPE) {
    mask = POOL_MASK;
    return system::parse_address(server.ip_begin, addr);
  }
  const auto& wireguard = static_cast<const wireguard::ServerConfig&>(server);
  std::ignore = system::parse_address(wireguard.server_ip,
                                      addr);  // a bad one stays 0.0.0.0, as does the mask
  std::ignore = system::parse_address(wireguard.server_mask_str, mask);
  return true;
}

}  // namespace

int apply_enable(BaseConfig** record, const char* value) {
  if (const int rc = set_truth<&BaseConfig::enable>(record, value); rc != NO_ERROR) return rc;
  const auto& server = as<ServerConfig>(record);
  in_addr addr{};
  in_addr mask{};
  if (!network_of(server, addr, mask)) return bad_value(server.ip_begin.c_str());
  if (!server.enable || config::cm.ip_pool_available(server.type, addr, mask)) return NO_ERROR;
  return error_message(ERR_IP_POOL_CONFLICT, server.ip_begin.c_str());
}

int apply_ip_pool(BaseConfig** record, const char* value) {
  in_addr addr{};
  if (!system::parse_address(value, addr)) return bad_value(value);
  auto& server = as<ServerConfig>(record);
  if (server.enable && !config::cm.ip_pool_available(server.type, addr, POOL_MASK)) {
    return error_message(ERR_IP_POOL_CONFLICT, value);
  }
  if (!is_private(addr)) return bad_value(value);
  server.ip_begin = in_pool(addr, 2);
  server.ip_end = in_pool(addr, 254);
  return NO_ERROR;
}

int apply_maximum(BaseConfig** record, const char* value) {
  int& maximum = as<ServerConfig>(record).maximum;
  maximum = to_int(value);
  const int most = (*record)->type == OVPN_SERVER_TYPE ? 60 : 100;
  return maximum < 5 || maximum > most ? bad_value(value) : NO_ERROR;
}

int apply_out_eif(BaseConfig** record, const char* value) {
  const char* interface = value ? value : "none";
  if (!Regex(OUT_EIF).search(interface)) {
    return bad_value(
        "--apply_out_eif only support none, eth, dvs, br, bond, docker, lxcbr, ppp, dtunc and tun "
        "device");
  }
  as<ServerConfig>(record).out_eif = interface;
  return NO_ERROR;
}

int apply_enable_dns(BaseConfig** record, const char* value) {
  bool& enable = field<&ServerConfig::enable_dns, &wireguard::ClientConfig::enable_dns>(record);
  if (parse_truth(value, enable)) return NO_ERROR;
  ORMEL_LOG(ERROR, "enable_dns is not 1, 0, true and false.");
  return bad_value(value);
}

int apply_manual_dns(BaseConfig** record, const char* value) {
  in_addr addr{};
  if (!system::parse_address(value, addr)) return bad_value(value);
  return set_text<&ServerConfig::manual_dns, &wireguard::ClientConfig::manual_dns>(record, value);
}

int apply_mss(BaseConfig** record, const char* value) {
  const bool openvpn = (*record)->type == OVPN_SERVER_TYPE;
  return openvpn ? set_number<&ovpn::ServerConfig::mss>(record, value)
                 : set_number<&ppp::ServerConfig::mss>(record, value);
}

int apply_sig_algo(BaseConfig** record, const char* value) {
  const std::string algorithm = value ? value : "";
  if (algorithm != "sha1WithRSAEncryption" && algorithm != "sha256WithRSAEncryption") {
    return bad_value(("sig_algo contains invalid string" + algorithm).c_str());
  }
  as<ovpn::ServerConfig>(record).signature_algorithm = algorithm;
  return NO_ERROR;
}

}  // namespace ormel::option
