// The route that changes a stored profile.
#include <algorithm>
#include <string>
#include <strings.h>

#include "base/tunnel.h"
#include "ormel/actions/actions.h"
#include "ormel/actions/tunnel_state.h"
#include "ormel/base/address.h"
#include "ormel/base/file.h"
#include "ormel/base/log.h"
#include "ormel/base/text.h"
#include "ormel/config/pool.h"
#include "ormel/host/interfaces.h"
#include "ormel/options/table.h"
#include "ormel/web/config.h"
#include "ormel/web/routes.h"

namespace ormel::cgi::config {

using ormel::config::cm;

namespace {

// The first line of vpn.conf with `text` in it means a failure: `refusal`. Without such a line
// there is no failure.
int check_line(const std::string& text, ERROR_CODE refusal) {
  std::string content;
  if (!system::read_file(ormel::config::VPN_CONF, content)) return ERR_MISSING_VPN_CONF;
  return reports_failure(content, text) ? refusal : NO_ERROR;
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
  index = to_int(request.value("index"));
  return NO_ERROR;
}

int check_wireguard_network(const Request& request) {
  for (const char* name : {"server_pri_key", "server_mask", "server_ip"}) {
    if (request.filled(name)) continue;
    ORMEL_LOG(ERROR, "%s is NULL.", name);
    return ERR_MISS_OPTION;
  }
  const std::string mask = system::dotted_mask(to_int(request.value("server_mask")));
  return system::is_network_intersect(request.value("server_ip"), mask.c_str());
}

// What a server that is turned on gives out must not be one of the appliance's own networks.
int check_network(const Request& request, TYPE type) {
  if (!turns_on(request)) return NO_ERROR;
  if (type == WIREGUARD_SERVER_TYPE) return check_wireguard_network(request);
  return request.has("ip_pool")
             ? system::is_network_intersect(request.value("ip_pool"), ormel::config::POOL_MASK)
             : NO_ERROR;
}

// Applies the request to a copy, so that the stored profile stays as it is until all has been
// checked.
int change(const Request& request, TYPE type, int index, JsonValue& data) {
  auto record = cm.clone(type, index);
  if (!record) return ERR_CONFIGURE_INDEX;
  if (!record->bc) return ERR_WRONG_TYPE;
  (*record)->action = MODIFY_ACTION;
  int rc = NO_ERROR;
  record = option::get_options(std::move(record), request.vars(), rc);
  return rc == NO_ERROR ? ormel::modify(std::move(record), &data) : rc;
}

int modify_profile(const Request& request, JsonValue& reply) {
  // Before the type is looked at: without the entrance nothing can be turned on.
  int rc = turns_on(request) ? check_line(ENTRANCE_LINE, ERR_SETUP_VPN_ENTRANCE_STATUS) : NO_ERROR;
  if (rc != NO_ERROR) return rc;
  const TYPE type = convert_type(request.value("type"));
  if (type == NONE_TYPE) return ERR_NO_TYPE;
  int index = 0;
  if (rc = read_index(request, type, index); rc != NO_ERROR) return rc;
  if (rc = check_network(request, type); rc != NO_ERROR) return rc;
  if (rc = change(request, type, index, reply["data"]); rc != NO_ERROR || is_client(type))
    return rc;
  // The server has been stored and restarted by now, and stays so.
  return check_line(std::string(tunnel_of(type).section) + RULES_LINE,
                    ERR_WRONG_VPN_IPTABLES_RULES);
}

constexpr Route ROWS[] = {
    {"/ormel/config/modify", ADMINISTRATOR, CHANGES, json<modify_profile>},
};

}  // namespace

const Routes PROFILE_EDIT{ROWS};

}  // namespace ormel::cgi::config
