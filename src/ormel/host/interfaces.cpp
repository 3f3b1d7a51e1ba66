#include "ormel/host/interfaces.h"

#include <cerrno>
#include <cstring>
#include <ifaddrs.h>
#include <memory>
#include <netdb.h>
#include <netinet/in.h>
#include <string_view>

#include "ormel/base/address.h"
#include "ormel/base/error.h"
#include "ormel/base/json.h"
#include "ormel/base/log.h"
#include "ormel/host/bus.h"

namespace ormel {

namespace {

constexpr const char* STATUS = "api.get_interfaceStatus";
constexpr const char* DUPLICATE = "api.check_ip_duplicate";
constexpr int CALL_FAILED = -1;

std::string_view type_of(const json_t* interface) {
  const char* type = json_string_value(json_object_get(interface, "interface_type"));
  return type ? type : "";
}

// A member that the reply lacks is missing from the object, too.
void copy_member(json_t* object, const char* name, const json_t* value) {
  if (value) json_object_set_new(object, name, json_deep_copy(value));
}

// The call about one interface, which `key` tells apart by its member `member`. 0, or a code,
// logged.
int ask(const char* method, const json_t* interface, const char* key, const char* member,
        std::string& failed_method, PlainReply& reply) {
  const Json request{json_pack("{s:O?}", key, json_object_get(interface, member))};
  reply = call_network_service(method, request.get());
  if (reply.document) return NO_ERROR;
  failed_method = method;
  if (reply.status != MIB_SUCCESS) {
    ORMEL_LOG(ERROR, ": mib_call failed, method: %s, ret: %d", method, reply.status);
    return ERR_MIB_CALL_FAILED;
  }
  ORMEL_LOG(ERROR, ": json load failed, method: %s, ret: %d", method, ERR_WRONG_JSON_FORMAT);
  return ERR_WRONG_JSON_FORMAT;
}

int ask_by_number(const char* method, const json_t* interface, std::string& failed_method,
                  PlainReply& reply) {
  return ask(method, interface, "ifindex", "ifindex", failed_method, reply);
}

// The parts of a bridge or bond into `member`.
int get_parts(const char* method, const char* member, json_t* interface,
              std::string& failed_method) {
  PlainReply reply;
  if (const int rc = ask_by_number(method, interface, failed_method, reply); rc != NO_ERROR)
    return rc;
  copy_member(interface, member, reply.data());
  size_t index = 0;
  json_t* part = nullptr;
  json_array_foreach(json_object_get(interface, member), index, part) {
    if (const int rc = get_interface_speed(part, failed_method); rc != NO_ERROR) return rc;
  }
  return NO_ERROR;
}

}  // namespace

int get_interface_status(json_t* interface, std::string& failed_method) {
  PlainReply reply;
  json_object_set_new(interface, "maxSpeed", json_null());
  if (const int rc = ask_by_number(STATUS, interface, failed_method, reply); rc != NO_ERROR)
    return rc;
  const json_t* first = json_array_get(json_object_get(reply.data(), "IPv4"), 0);
  copy_member(interface, "ip", json_object_get(first, "ip"));
  if (type_of(interface) == "ethernet")
    copy_member(interface, "maxSpeed", json_object_get(reply.data(), "max_speed"));
  return NO_ERROR;
}

int get_interface_speed(json_t* interface, std::string& failed_method) {
  if (type_of(interface).starts_with("virtualif")) return NO_ERROR;
  PlainReply reply;
  if (const int rc = ask_by_number(STATUS, interface, failed_method, reply); rc != NO_ERROR)
    return rc;
  copy_member(interface, "maxSpeed", json_object_get(reply.data(), "max_speed"));
  return NO_ERROR;
}

int get_bridge_members(json_t* interface, std::string& failed_method) {
  return get_parts("api.get_bridge_members", "member", interface, failed_method);
}

int get_bonding_slaves(json_t* interface, std::string& failed_method) {
  return get_parts("api.get_bonding_slaves", "slave", interface, failed_method);
}

int get_Interface_transmit_rate(json_t* interface, std::string& failed_method) {
  PlainReply reply;
  for (const char* rate : {"tx_rate", "rx_rate"}) json_object_set_new(interface, rate, json_null());
  if (const int rc = ask(system::INTERFACE_COUNTERS, interface, "name_interface", "ifname",
                         failed_method, reply);
      rc != NO_ERROR)
    return rc;
  for (const char* rate : {"tx_rate", "rx_rate"})
    copy_member(interface, rate, json_object_get(reply.data(), rate));
  return NO_ERROR;
}

int is_ip_duplicate(const std::string& ip) {
  const std::string address =
      escape_json(ip);  // for the log, where it could begin a line of its own
  const Json request{json_pack("{s:o}", "ip", json_string(system::valid_utf8(ip).c_str()))};
  const PlainReply reply = call_network_service(DUPLICATE, request.get());
  const json_t* error = json_object_get(reply.document.get(), "error");
  if (!json_is_integer(error)) {
    ORMEL_LOG(ERROR, "%s: %s.%s, ip: %s, mib_call failed ret:%d\n", __func__,
              system::NETWORK_SERVICE, DUPLICATE, address.c_str(), reply.status);
    return CALL_FAILED;
  }
  const int code = static_cast<int>(json_integer_value(error));
  if (code == 1) {
    ORMEL_LOG(ERROR, "%s: %s.%s, ip: %s, ip duplicate with FENRO network.\n", __func__,
              system::NETWORK_SERVICE, DUPLICATE, address.c_str());
  } else if (code != 0) {
    const char* data = json_string_value(reply.data());
    ORMEL_LOG(ERROR, "%s: %s.%s, ip: %s, mib_call failed ret:%d, data: %s.\n", __func__,
              system::NETWORK_SERVICE, DUPLICATE, address.c_str(), code, data ? data : "");
  }
  return code;
}

namespace system {

namespace {

using InterfaceList = std::unique_ptr<ifaddrs, FreeWith<freeifaddrs>>;

const in_addr& address_of(const sockaddr* address) {
  return reinterpret_cast<const sockaddr_in*>(address)->sin_addr;  // the family has been looked at
}

void collect_subnet(const ifaddrs& interface, std::vector<std::string>& out) {
  if (!interface.ifa_netmask) {
    ORMEL_LOG(DEBUG, "Interface %s has no netmask, skipping\n", interface.ifa_name);
    return;
  }
  const int prefix = netmask_to_prefix(address_of(interface.ifa_netmask).s_addr);
  if (prefix < 0) {
    ORMEL_LOG(ERROR, "Invalid netmask for %s, skipping\n", interface.ifa_name);
    return;
  }
  char address[NI_MAXHOST];
  const int rc = getnameinfo(interface.ifa_addr, sizeof(sockaddr_in), address, sizeof address,
                             nullptr, 0, NI_NUMERICHOST);
  if (rc != 0) {
    ORMEL_LOG(ERROR, "getnameinfo() failed for %s: %s\n", interface.ifa_name, gai_strerror(rc));
    return;
  }
  out.push_back(std::string(address) + '/' + std::to_string(prefix));
  ORMEL_LOG(DEBUG, "Found subnet on interface %s: %s\n", interface.ifa_name, out.back().c_str());
}

}  // namespace

int is_network_intersect(const char* ip, const char* mask) {
  constexpr const char* METHOD = "api.check_network_intersect";
  const MibIo io{mib_io_create()};
  if (!io) return ERR_MIB_IO_FAILED;
  // The addresses can come from a form: escaped, they cannot add a member to the request or a line
  // to the log.
  const std::string address = escape_json(ip);
  const std::string netmask = escape_json(mask);
  const std::string call =
      std::string(NETWORK_SERVICE) + '.' + METHOD + ", ip: " + address + ", mask: " + netmask;
  mib_io_printf(io.get(), "{\"ip\":\"%s\", \"mask\": \"%s\"}", address.c_str(), netmask.c_str());
  const PlainReply reply = plain_call({__func__, NETWORK_SERVICE, METHOD}, io);
  if (reply.status != MIB_SUCCESS) {
    ORMEL_LOG(ERROR, "%s: %s, mib_call failed ret:%d\n", __func__, call.c_str(), reply.status);
    return ERR_MIB_CALL_FAILED;
  }
  if (!reply.document) {
    ORMEL_LOG(ERROR, "%s: %s, failed to parse json.\n", __func__, call.c_str());
    return ERR_MIB_CALL_FAILED;
  }
  const json_t* error = json_object_get(reply.document.get(), "error");
  const json_int_t code = json_is_integer(error) ? json_integer_value(error) : -1;
  if (code == 0) return NO_ERROR;
  if (code == 1) {
    ORMEL_LOG(ERROR, "%s: %s, ip pool conflict with FENRO network.\n", __func__, call.c_str());
    return ERR_IP_POOL_CONFLICT;
  }
  const char* data = json_string_value(reply.data());
  ORMEL_LOG(ERROR, "%s: %s, mib_call failed ret:%d, data: %s.\n", __func__, call.c_str(),
            static_cast<int>(code), data ? data : "");
  return ERR_MIB_API_RET_ERROR;
}

int collect_all_interface_subnet(std::vector<std::string>& out) {
  ifaddrs* first = nullptr;
  if (getifaddrs(&first) != 0) {
    ORMEL_LOG(ERROR, "Failed to get network interfaces: %s\n", std::strerror(errno));
    return ERR_CMD_FAILED;
  }
  const InterfaceList interfaces{first};
  for (const ifaddrs* interface = first; interface; interface = interface->ifa_next) {
    const bool ipv4 = interface->ifa_addr && interface->ifa_addr->sa_family == AF_INET;
    if (ipv4 && std::strcmp(interface->ifa_name, "lo") != 0) collect_subnet(*interface, out);
  }
  ORMEL_LOG(DEBUG, "Collected %zu subnets from network interfaces\n", out.size());
  return NO_ERROR;
}

}  // namespace system
}  // namespace ormel
