#include "ormel/ormel_cgi_config_edit.h"

#include <algorithm>
#include <string>
#include <string_view>
#include <strings.h>

#include "ormel/config_pool.h"
#include "ormel/net.h"
#include "ormel/option.h"
#include "ormel/ormel.h"
#include "ormel/ormel_cgi.h"
#include "ormel/ormel_cgi_config.h"
#include "ormel/ovpn_profile.h"
#include "ormel/system_log.h"
#include "ormel/text.h"
#include "ormel/tunnel.h"

namespace ormel::cgi::config {

using ormel::config::cm;

namespace {

constexpr const char* POOL_MASK = "255.255.255.0";  // of every server's pool, whatever its size

// What the scripts leave in vpn.conf about their own work.
constexpr const char* ENTRANCE_LINE = "setup_vpn_entrance_status";
constexpr const char* RULES_LINE = "_iptables_rules";  // behind the section of a server
constexpr std::string_view FAILED = "FALSE";

// The first line of vpn.conf with `text` in it tells of a failure: `refusal`. No such line is none.
int check_line(const std::string& text, ERROR_CODE refusal) {
  std::string content;
  if (!option::read_file(ormel::config::VPN_CONF, content)) return ERR_MISSING_VPN_CONF;
  const size_t found = content.find(text);
  if (found == std::string::npos) return NO_ERROR;
  const size_t begin = content.rfind('\n', found) + 1;
  const size_t end = std::min(content.find('\n', found), content.size());
  const std::string_view line(&content[begin], end - begin);
  return line.find(FAILED) == std::string_view::npos ? NO_ERROR : refusal;
}

bool turns_on(const Request& request) {
  return strcasecmp(request.value("enable"), "true") == 0;
}

// The index of a client's profile; a server has none.
int read_index(const Request& request, TYPE type, int& index) {
  if (is_server(type)) return NO_ERROR;
  if (!request.filled("index")) {
    ORMEL_LOG(ERROR, "index is empty.");
    return ERR_MISS_OPTION;
  }
  index = option::to_int(request.value("index"));
  return NO_ERROR;
}

int check_wireguard_network(const Request& request) {
  for (const char* name : {"server_pri_key", "server_mask", "server_ip"}) {
    if (request.filled(name)) continue;
    ORMEL_LOG(ERROR, "%s is NULL.", name);
    return ERR_MISS_OPTION;
  }
  const std::string mask = system::dotted_mask(option::to_int(request.value("server_mask")));
  return system::is_network_intersect(request.value("server_ip"), mask.c_str());
}

// What a server that is turned on gives out must not be one of the appliance's own networks.
int check_network(const Request& request, TYPE type) {
  if (!turns_on(request)) return NO_ERROR;
  if (type == WIREGUARD_SERVER_TYPE) return check_wireguard_network(request);
  return request.has("ip_pool") ? system::is_network_intersect(request.value("ip_pool"), POOL_MASK) : NO_ERROR;
}

// Applies the request to a copy, so that the stored profile stays as it is until all has been checked.
int change(const Request& request, TYPE type, int index, JsonValue& data) {
  auto record = cm.clone(type, index);
  if (!record) return ERR_CONFIGURE_INDEX;
  if (!record->bc) return ERR_WRONG_TYPE;
  (*record)->action = MODIFY_ACTION;
  int rc = NO_ERROR;
  record = option::get_options(std::move(record), request.vars(), rc);
  return rc == NO_ERROR ? ormel::modify(std::move(record), &data) : rc;
}

}  // namespace

int modify(JsonValue& response) {
  return serve(response, ADMINISTRATOR, [](const Request& request, JsonValue& reply) -> int {
    // Before the type is looked at: without the entrance nothing can be turned on.
    int rc = turns_on(request) ? check_line(ENTRANCE_LINE, ERR_SETUP_VPN_ENTRANCE_STATUS) : NO_ERROR;
    if (rc != NO_ERROR) return rc;
    const TYPE type = convert_type(request.value("type"));
    if (type == NONE_TYPE) return ERR_NO_TYPE;
    int index = 0;
    if (rc = read_index(request, type, index); rc != NO_ERROR) return rc;
    if (rc = check_network(request, type); rc != NO_ERROR) return rc;
    if (rc = change(request, type, index, reply["data"]); rc != NO_ERROR || is_client(type)) return rc;
    // The server has been stored and restarted by now, and stays so.
    return check_line(std::string(tunnel_of(type).section) + RULES_LINE, ERR_WRONG_VPN_IPTABLES_RULES);
  });
}

}  // namespace ormel::cgi::config
