// The default gateway policy over the web.
#include <string>

#include "ormel/actions/gateway_policy.h"
#include "ormel/base/handle.h"
#include "ormel/base/log.h"
#include "ormel/base/text.h"
#include "ormel/host/bus.h"
#include "ormel/web/config.h"
#include "ormel/web/handlers.h"
#include "ormel/web/routes.h"

namespace ormel::cgi::gateway {

namespace {

constexpr int DEFAULT_POLICY = 2;  // of the network daemon, when it cannot be asked
constexpr int NO_INTERVAL = -1;

void set_int(json_t* object, const char* key, int value) {
  json_object_set_new(object, key, json_integer(value));
}

void set_gateway(json_t* policy, const char* key, TYPE type, int index) {
  const std::string name = typeindex_to_sname(type, index);
  json_object_set_new(
      policy, key,
      json_pack("{s:i, s:i, s:s}", "type", type, "index", index, "sname", name.c_str()));
}

int form_int(const Request& request, const char* name) {
  return to_int(request.value(name));
}

// The second gateway of the request. One without a type or with index 0 drops the fail-over, in
// silence.
void read_failover(const Request& request, json_t* policy) {
  const TYPE type = config::convert_type(request.value("gw2_type"));
  const int index = form_int(request, "gw2_index");
  const bool wanted = type != NONE_TYPE && index != 0;
  set_int(policy, "failover_en", wanted ? form_int(request, "failover_en") : 0);
  const bool delayed = wanted && request.filled("failover_interval");
  set_int(policy, "failover_interval",
          delayed ? form_int(request, "failover_interval") : NO_INTERVAL);
  if (wanted) set_gateway(policy, "gw2", type, index);
}

// The policy of the request into `policy`. 0, ERR_MISS_OPTION or ERR_VALUE.
int read_policy(const Request& request, json_t* policy) {
  if (!request.filled("as_gw_en")) return ERR_MISS_OPTION;
  set_int(policy, "as_gw_en", form_int(request, "as_gw_en"));
  if (form_int(request, "as_gw_en") != 1) return NO_ERROR;

  if (!request.filled("gw1_type") || !request.filled("gw1_index")) return ERR_MISS_OPTION;
  set_gateway(policy, "gw1", config::convert_type(request.value("gw1_type")),
              form_int(request, "gw1_index"));
  if (!request.filled("snat") || !request.filled("failover_en")) return ERR_VALUE;
  set_int(policy, "snat", form_int(request, "snat"));
  if (form_int(request, "failover_en") == 0) {
    set_int(policy, "failover_en", 0);
  } else {
    read_failover(request, policy);
  }
  return NO_ERROR;
}

int store_policy(const Request& request, JsonValue& /*reply*/) {
  const Json document{json_pack("{s:{}}", "gw_setting")};
  const int rc = read_policy(request, json_object_get(document.get(), "gw_setting"));
  if (rc != NO_ERROR) return rc;
  const CString raw{json_dumps(document.get(), 0)};
  if (!raw) return ERR_NO_MEMORY;
  ORMEL_LOG(DEBUG, "save raw data %s ", raw.get());
  return GlobalConfig().save(raw.get());
}

int gateway_policy() {
  const Json answer = system::easy_mib_call(system::NETWORK_SERVICE, "api.Get_global_config",
                                            "{\"key\":\"gateway_policy\"}");
  if (!answer) return DEFAULT_POLICY;
  const json_t* value = json_object_get(json_object_get(answer.get(), "data"), "gateway_policy");
  return to_int(json_string_value(value));
}

int show_policy(const Request&, JsonValue& reply) {
  JsonValue& data = reply["data"];
  std::ignore = GlobalConfig().load("gw_setting", data);  // fails for a null key alone
  data["gateway_policy"] = gateway_policy();
  return NO_ERROR;
}

int show_carrier(const Request&, JsonValue& reply) {
  GlobalConfig().get_vpn_gw(reply["data"]);
  return NO_ERROR;
}

int remove_profile(const Request& request, JsonValue&) {
  if (!request.filled("type") || !request.filled("index")) return ERR_MISS_OPTION;
  return GlobalConfig().disable_gateway(config::convert_type(request.value("type")),
                                        form_int(request, "index"));
}

constexpr Route ROWS[] = {
    {"/ormel/gateway/get", ANY_SESSION, READS, json<show_policy>},
    {"/ormel/gateway/set", ADMINISTRATOR_BY_NAME, CHANGES, json<store_policy>},
    {"/ormel/gateway/get_vpn_gw", ANY_SESSION, READS, json<show_carrier>},
};

}  // namespace

const Routes POLICY{ROWS};

int disable_gateway(JsonValue& response) {
  return serve({"", ADMINISTRATOR_BY_NAME, CHANGES, json<remove_profile>}, response);
}

}  // namespace ormel::cgi::gateway
