// Facts about the appliance over the web.
#include <iterator>

#include "ormel/base/address.h"
#include "ormel/base/log.h"
#include "ormel/base/text.h"
#include "ormel/config/pool.h"
#include "ormel/host/appliance.h"
#include "ormel/host/bus.h"
#include "ormel/host/probe.h"
#include "ormel/membership/settings.h"
#include "ormel/web/handlers.h"
#include "ormel/web/routes.h"

namespace ormel::cgi::misc {

namespace {

using ormel::misc::NETHOST;

constexpr const char* VERSION = "3.3.1538";
constexpr const char* BUILD_DATE = "20260320";
constexpr const char* API_VERSION = "3.3";

// Public resolvers, two of each operator.
constexpr const char* NAME_SERVERS[] = {
    "8.8.8.8",        "8.8.4.4",          // Google
    "1.1.1.1",        "1.0.0.1",          // Cloudflare
    "9.9.9.9",        "149.112.112.112",  // Quad9
    "208.67.222.222", "208.67.220.220",   // OpenDNS
    "64.6.64.6",      "64.6.65.6",        // Verisign
    "94.140.14.14",   "94.140.15.15",     // AdGuard
};
static_assert(std::size(NAME_SERVERS) == 12);

std::string site() {
  std::string site;
  if (ormel::pelmar::get_hollex_site(site) == NO_ERROR) return to_lower(site);
  ORMEL_LOG(ERROR, "Failed to get hollex site");
  return ormel::pelmar::PRODUCTION_SITE;
}

int tell_environment(const Request&, JsonValue& reply) {
  JsonValue& data = reply["data"];
  data["demo"] = system::is_demo();
  data["generic"] = system::is_generic();
  data["hexan"] = system::is_hexan();
  data["version"] = VERSION;
  data["build_date"] = BUILD_DATE;
  data["api_version"] = API_VERSION;
  data["model"] = system::get_model_name();
  data["firmware"] = system::get_firmware_version();
  data["server_name"] = system::get_server_name();
  data["region"] = system::get_server_region();
  data["wireguard_available"] = false;  // clients must not offer it by what this route says
  data["site"] = site();
  return NO_ERROR;
}

// Read back from text, which is refused where a stored name is no UTF-8.
int tell_tunnels(const Request&, JsonValue& reply) {
  JsonValue& data = reply["data"].make_array();
  JsonValue by_interface;
  ormel::config::cm.load();
  if (ormel::config::cm.list_vpn_eif(&by_interface) == 0) return NO_ERROR;

  std::string text;
  by_interface.toString(text);
  json_error_t error{};
  const Json document{json_loadb(text.data(), text.size(), 0, &error)};
  if (!document) {
    ORMEL_LOG(ERROR, ": json load failed reason:%s\ntemp_str=%s", error.text, text.c_str());
    return ERR_WRONG_JSON_FORMAT;
  }
  const char* interface = nullptr;
  json_t* tunnel = nullptr;
  json_object_foreach(document.get(), interface, tunnel) {
    Json copy{json_deep_copy(tunnel)};
    json_object_set_new(copy.get(), "ifname", json_string(interface));
    data << copy.release();
  }
  return NO_ERROR;
}

std::vector<NETHOST> hosts_of(const Request& request) {
  std::vector<NETHOST> hosts;
  for (const char* host : request.values("host")) hosts.push_back({host, 0, 0, 0});
  return hosts;
}

int probe_name_servers(const Request& request, JsonValue& reply) {
  JsonValue& data = reply["data"].make_object();
  std::vector<NETHOST> hosts = hosts_of(request);
  if (!request.has("host")) {
    for (const char* server : NAME_SERVERS) hosts.push_back({server, 0, 0, 0});
  }
  ormel::misc::nslookup(hosts);
  for (const NETHOST& host : hosts) {
    JsonValue& entry = data[system::valid_utf8(host.host)];
    entry["status"] = host.result != 0;
    entry["latency"] = host.latency;
  }
  return NO_ERROR;
}

int probe_hosts(const Request& request, JsonValue& reply) {
  JsonValue& data = reply["data"].make_object();
  std::vector<NETHOST> hosts = hosts_of(request);
  ormel::misc::ping(hosts);
  for (const NETHOST& host : hosts)
    data[system::valid_utf8(host.host)] = static_cast<int32_t>(host.result);
  return NO_ERROR;
}

constexpr Route ROWS[] = {
    {"/ormel/misc/env", ADMINISTRATOR, READS, json<tell_environment>},
    {"/ormel/misc/dns", ADMINISTRATOR, READS, json<probe_name_servers>, MULTIPLE_VAR_MODE},
    {"/ormel/misc/vpn_client_info", ADMINISTRATOR, READS, json<tell_tunnels>},
};

}  // namespace

const Routes FACTS{ROWS};

int ping(JsonValue& response) {
  return serve({"", ADMINISTRATOR, READS, json<probe_hosts>, MULTIPLE_VAR_MODE}, response);
}

}  // namespace ormel::cgi::misc
