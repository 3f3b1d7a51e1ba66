// The handlers as functions, for the appliance's other programs that link this code. Each answers
// one request and returns the code of the reply.
#pragma once

#include "ormel/base/json.h"

// HANDLER(AREA, NAME, PATH) for each handler that is a row of the route table. A new route needs
// none.
#define ORMEL_HANDLERS(HANDLER)                                               \
  HANDLER(config, add, "config/add")                                          \
  HANDLER(config, show, "config/show")                                        \
  HANDLER(config, remove, "config/remove")                                    \
  HANDLER(config, connect, "config/connect")                                  \
  HANDLER(config, disconnect, "config/disconnect")                            \
  HANDLER(config, check, "config/check")                                      \
  HANDLER(config, import, "config/import")                                    \
  HANDLER(config, modify, "config/modify")                                    \
  HANDLER(config, download, "config/download")                                \
  HANDLER(config, downloadcert, "config/downloadcert")                        \
  HANDLER(connection, list, "connection/list")                                \
  HANDLER(connection, kick, "connection/kick")                                \
  HANDLER(log, event, "log/event")                                            \
  HANDLER(log, client, "log/client")                                          \
  HANDLER(log, server, "log/server")                                          \
  HANDLER(log, cleanup, "log/cleanup")                                        \
  HANDLER(log, dump, "log/dump")                                              \
  HANDLER(misc, env, "misc/env")                                              \
  HANDLER(misc, nic, "misc/nic")                                              \
  HANDLER(misc, dns, "misc/dns")                                              \
  HANDLER(misc, gwInfo, "misc/gw")                                            \
  HANDLER(misc, member, "misc/member")                                        \
  HANDLER(misc, vpnClientInfo, "misc/vpn_client_info")                        \
  HANDLER(misc, interfaceRate, "misc/interface_rate")                         \
  HANDLER(user, query, "user/query")                                          \
  HANDLER(privilege, get, "privilege/get")                                    \
  HANDLER(privilege, set, "privilege/set")                                    \
  HANDLER(privilege, unset, "privilege/unset")                                \
  HANDLER(privilege, block_show, "privilege/block_show")                      \
  HANDLER(privilege, block, "privilege/block")                                \
  HANDLER(privilege, remove_block_user, "privilege/remove_block_user")        \
  HANDLER(gateway, get, "gateway/get")                                        \
  HANDLER(gateway, set, "gateway/set")                                        \
  HANDLER(gateway, get_vpn_gw, "gateway/get_vpn_gw")                          \
  HANDLER(pelmar, pelmar_check_device, "pelmar/check_device")                 \
  HANDLER(pelmar, pelmar_check_virtual_ip, "pelmar/check_virtual_ip")         \
  HANDLER(pelmar, pelmar_device_register, "pelmar/device_register")           \
  HANDLER(pelmar, pelmar_device_unregister, "pelmar/device_unregister")       \
  HANDLER(pelmar, pelmar_get_tamid, "pelmar/get_tamid")                       \
  HANDLER(pelmar, pelmar_get_pelmar_status, "pelmar/get_pelmar_status")       \
  HANDLER(pelmar, pelmar_join_pelmar_precheck, "pelmar/join_pelmar_precheck") \
  HANDLER(pelmar, pelmar_modify_virtual_ip, "pelmar/modify_virtual_ip")       \
  HANDLER(pelmar, pelmar_organization_list, "pelmar/organization_list")       \
  HANDLER(pelmar, pelmar_region_list, "pelmar/region_list")                   \
  HANDLER(pelmar, pelmar_feature_tour_show, "pelmar/feature_tour/show")       \
  HANDLER(pelmar, pelmar_feature_tour_set, "pelmar/feature_tour/set")         \
  HANDLER(pelmar, pelmar_min_fenro_version, "pelmar/min_fenro_version")       \
  HANDLER(pelmar, pelmar_min_ormel_version, "pelmar/min_ormel_version")       \
  HANDLER(pelmar, pelmar_compatible_version, "pelmar/compatible_version")     \
  HANDLER(pelmar, pelmar_supernode_recent_billing_daily_traffic,              \
          "pelmar/supernode_recent_billing_daily_traffic")                    \
  HANDLER(pelmar, pelmar_logs, "pelmar/logs")                                 \
  HANDLER(pelmar, pelmar_oauth_login, "oauth_login")

namespace ormel::cgi {

#define ORMEL_DECLARE(area, name, path) \
  namespace area {                      \
  int name(JsonValue& response);        \
  }
ORMEL_HANDLERS(ORMEL_DECLARE)
#undef ORMEL_DECLARE

// No route leads to the following ones.
namespace connection {
int temporary(JsonValue& response);  // registers a mobile device
}
namespace gateway {
int disable_gateway(JsonValue& response);  // takes one profile out of the policy
}
namespace misc {
int ping(JsonValue& response);  // how well hosts answer
}
namespace provider {
int goldenfrog(JsonValue& response);  // the server list of a VPN provider
}

}  // namespace ormel::cgi
