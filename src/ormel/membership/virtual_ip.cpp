#include "ormel/membership/virtual_ip.h"

#include <arpa/inet.h>
#include <cstring>
#include <vector>

#include "base/tunnel.h"
#include "ormel/base/address.h"
#include "ormel/base/error.h"
#include "ormel/base/json.h"
#include "ormel/base/log.h"
#include "ormel/config/driver.h"
#include "ormel/config/pool.h"
#include "ormel/config/record.h"
#include "ormel/drivers/wireguard/wireguard.h"
#include "ormel/host/bus.h"
#include "ormel/host/interfaces.h"
#include "ormel/host/notification.h"
#include "ormel/membership/cloud.h"
#include "ormel/membership/settings.h"
#include "ormel/membership/token.h"

namespace ormel::pelmar {

namespace {

constexpr const char* HOST_MASK = "255.255.255.255";
constexpr const char* HOST_PREFIX = "32";
const in_addr ONE_HOST{htonl(0xffffffff)};

Json subnets_of_device() {
  Json list{json_array()};
  std::vector<std::string> subnets;
  if (system::collect_all_interface_subnet(subnets) != NO_ERROR) {
    ORMEL_LOG(WARN, "Failed to collect excluded subnets, continuing without them");
    return list;
  }
  for (const std::string& subnet : subnets)
    json_array_append_new(list.get(), json_string(subnet.c_str()));
  return list;
}

// The request's body; null for an address that is no UTF-8.
CString check_body(const std::string& ip, Json subnets) {
  const Json root{json_pack("{s:[{s:s, s:s, s:s, s:o}]}", "data", "ip", ip.c_str(), "submask",
                            HOST_PREFIX, "type", "virtualIP", "excludedSubnets",
                            subnets.release())};
  return CString{root ? json_dumps(root.get(), JSON_COMPACT) : nullptr};
}

// The address that the cloud would rather give, empty if it names none.
std::string suggestion_of(const json_t* root) {
  size_t index = 0;
  json_t* element = nullptr;
  json_array_foreach(json_object_get(root, "data"), index, element) {
    const char* const text =
        json_string_value(json_object_get(json_object_get(element, "data"), "sugIPNet"));
    if (text && *text) return {text, std::strcspn(text, "/")};
  }
  return "";
}

// What a refusal of the cloud makes of the address.
int take_suggestion(const std::string& answer, std::string& ip) {
  json_error_t error{};
  const Json root{json_loadb(answer.data(), answer.size(), 0, &error)};
  if (!root) {
    ORMEL_LOG(ERROR, "Failed to parse JSON response: %s", error.text);
    return ERR_WRONG_JSON_FORMAT;
  }
  const std::string original = ip;
  if (const std::string suggested = suggestion_of(root.get()); !suggested.empty()) {
    ORMEL_LOG(INFO, "IP subnet conflict detected. Original IP: %s, Suggested IP: %s",
              original.c_str(), suggested.c_str());
    ip = suggested;
  }
  ORMEL_LOG(INFO, "%s Original IP: %s, Suggested IP: %s",
            ip == original ? "IP subnet conflict not detected." : "IP subnet conflict detected.",
            original.c_str(), ip.c_str());
  return NO_ERROR;
}

// The start of a server's pool; false when it has none that can be compared.
bool pool_of(const config::PolyConfig* stored, in_addr& pool) {
  if (!stored || !(*stored)->enable) return false;
  const std::string& start = (*stored)->type == WIREGUARD_SERVER_TYPE
                                 ? stored->cast<wireguard::ServerConfig>()->server_ip
                                 : stored->cast<config::ServerConfig>()->ip_begin;
  return inet_aton(start.c_str(), &pool) != 0;
}

int call_express(const char* method) {
  const system::PlainReply answer = system::plain_call(EXPRESS_SERVICE, method);
  if (answer.status == MIB_SUCCESS) return NO_ERROR;
  ORMEL_LOG(ERROR, "%s: mib_call failed, method: %s, ret: %d", "modify_virtual_ip", method,
            answer.status);
  return ERR_CMD_FAILED;
}

}  // namespace

bool is_local_address(const std::string& ip) {
  return system::is_network_intersect(ip.c_str(), HOST_MASK) != NO_ERROR;
}

int pelmar_api_ip_subnet_check(std::string& ip) {
  ORMEL_LOG(INFO, "pelmar_api_ip_subnet_check start");
  CloudValues values;
  if (get_pelmartoken_wrapper(values.pelmar_token) != NO_ERROR) {
    ORMEL_LOG(ERROR, "Failed to get Pelmar token");
    return ERR_PELMAR_GETCLOUDTOKEN;  // the code of the other token is what clients know
  }
  Json subnets = subnets_of_device();
  CloudCall call{CloudOperation::CHECK_SUBNET, values};
  if (!call) {
    ORMEL_LOG(ERROR, "Failed to initialize CURL");
    return ERR_CURL_FAIL;
  }
  const CString body = check_body(ip, std::move(subnets));
  if (!body) {
    ORMEL_LOG(ERROR, "Failed to serialize JSON");
    return ERR_WRONG_JSON_FORMAT;
  }
  ORMEL_LOG(INFO, "ip_subnet_check request payload: %s", body.get());
  std::string answer;
  const int rc = call.perform(body.get(), answer);
  ORMEL_LOG(INFO, "pelmar api ip_subnet_check response: %s", answer.c_str());
  if (rc == NO_ERROR) {
    ORMEL_LOG(INFO, "[pelmar_api_ip_subnet_check] No need to modify virtual ip");
    return NO_ERROR;
  }
  if (rc == ERR_HTTP_ERROR) return take_suggestion(answer, ip);
  ORMEL_LOG(ERROR, "Failed to call pelmar api ip_subnet_check, response: %s, error: %d",
            answer.c_str(), rc);
  return rc;
}

bool conflicts_with_vpn_server(const std::string& ip) {
  config::cm.load();
  ORMEL_LOG(INFO, "Checking for conflicts with VPN subnets");
  in_addr address{};
  const bool comparable = inet_aton(ip.c_str(), &address) != 0;
  for (const TunnelFacts& facts : TUNNELS) {
    ORMEL_LOG(INFO, "Checking for conflicts with %s subnet", facts.section);
    in_addr pool{};
    const in_addr mask{inet_addr(config::POOL_MASK)};
    if (!comparable || !pool_of(config::cm.fetch(facts.server, 0), pool)) continue;
    if (!system::is_intersect(address, ONE_HOST, pool, mask)) continue;
    char start[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &pool, start, sizeof start);
    ORMEL_LOG(ERROR, "Virtual IP %s conflicts with %s subnet (%s/24)", ip.c_str(), facts.section,
              start);
    ORMEL_LOG(ERROR, "%s: ip pool conflict with %s server.", "pelmar_check_virtual_ip",
              facts.section);
    return true;
  }
  return false;
}

int modify_virtual_ip(const std::string& ip) {
  if (is_local_address(ip)) {
    ORMEL_LOG(ERROR, "Virtual ip %s is in network intersect", ip.c_str());
    return ERR_WRONG_VIRTUAL_IP;
  }
  std::string old;
  if (get_virtual_ip(old) != NO_ERROR) {
    ORMEL_LOG(ERROR, "Failed to get virtual ip");
    return ERR_CMD_FAILED;
  }
  if (set_virtual_ip(ip) != NO_ERROR) {
    ORMEL_LOG(ERROR, "Failed to set virtual ip");
    return ERR_CMD_FAILED;
  }
  for (const char* method : {"UpdateNetworkInterfaces", "ResetVirtualInterface"}) {
    if (const int rc = call_express(method); rc != NO_ERROR) return rc;
  }
  nclog::notify_send(&nc_message("C004", "0040"), old.c_str(), ip.c_str(), nullptr);
  return NO_ERROR;
}

}  // namespace ormel::pelmar
