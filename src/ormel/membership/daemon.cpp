#include "ormel/membership/daemon.h"

#include "ormel/base/error.h"
#include "ormel/base/log.h"
#include "ormel/host/bus.h"
#include "ormel/membership/token.h"

namespace ormel::pelmar {

namespace {

using system::plain_call;
using system::PlainReply;

constexpr int CONNECTED = 2;  // state of one connection

struct Counter {
  const char* told;   // by the daemon
  const char* shown;  // in the status
};

constexpr Counter COUNTERS[] = {
    {"remainingThroughput", "remaining_usage"},
    {"throughputCapacity", "total_usage"},
    {"renewalDate", "expired_date"},
    {"lastBillingDate", "last_billing_date"},
};

// A text that is taken only where there is one.
void take_text(const json_t* object, const char* key, std::string& out) {
  if (const char* const text = json_string_value(json_object_get(object, key))) out = text;
}

bool all_counters(const json_t* data) {
  for (const Counter& counter : COUNTERS) {
    if (!json_is_integer(json_object_get(data, counter.told))) return false;
  }
  return true;
}

// The object of states under `key`; null, and logged, when there is none.
const json_t* states_of(const json_t* data, const char* key) {
  const json_t* const states = json_object_get(data, key);
  if (json_is_object(states)) return states;
  ORMEL_LOG(ERROR, "GetIPSecStatus output missing '%s' object", key);
  return nullptr;
}

// The answer about the tunnels judged up to its data; null, and logged, when it has none.
const json_t* ipsec_data(const PlainReply& answer) {
  if (answer.status == system::NO_IO) {
    ORMEL_LOG(ERROR, "Failed to create io");
  } else if (answer.status != 0) {
    ORMEL_LOG(ERROR, "Failed to call pelmar_expressd.GetIPSecStatus");
  } else if (answer.text.empty()) {
    ORMEL_LOG(ERROR, "Failed to read mibsh output");
  } else if (mibsh_response_checker(answer.document.get()) != NO_ERROR) {
    ORMEL_LOG(ERROR, "Failed to parse GetIPSecStatus output JSON: %s", answer.reason.c_str());
  } else if (const json_t* const data = answer.data(); json_is_object(data)) {
    return data;
  } else {
    ORMEL_LOG(ERROR, "GetIPSecStatus output missing 'data' object");
  }
  return nullptr;
}

// One call of the express agent whose answer is an array in `data`. 0, ERR_CMD_FAILED, the code of
// the answer's judge, or ERR_WRONG_JSON_FORMAT.
int copy_array(const char* method, JsonValue& out, size_t& count) {
  const PlainReply answer = plain_call(EXPRESS_SERVICE, method);
  if (answer.status != 0) {
    ORMEL_LOG(ERROR, "Failed to call pelmar_expressd.%s", method);
    return ERR_CMD_FAILED;
  }
  if (const int rc = mibsh_response_checker(answer.document.get()); rc != NO_ERROR) {
    ORMEL_LOG(ERROR, "Failed to check %s response", method);
    return rc;
  }
  json_t* const data = answer.data();
  if (!json_is_array(data)) {
    ORMEL_LOG(ERROR, "%s output missing 'data' array", method);
    return ERR_WRONG_JSON_FORMAT;
  }
  count = json_array_size(data);
  out = json_incref(data);
  return NO_ERROR;
}

}  // namespace

int64_t mibsh_get_cloud_status() {
  const PlainReply answer = plain_call(EXPRESS_SERVICE, "GetCloudStatus");
  if (answer.status != 0) {
    ORMEL_LOG(ERROR, "Failed to call pelmar_expressd.GetCloudStatus");
    return 0;
  }
  if (mibsh_response_checker(answer.document.get()) != NO_ERROR) return 0;
  const json_t* const data = answer.data();
  return json_is_integer(data) ? json_integer_value(data) : 0;
}

int mibsh_get_hubinfo(std::string& router_name, std::string& router_ip, std::string& supernode_name,
                      std::string& supernode_ip) {
  std::string token;
  if (const int rc = get_mdevice_token(token); rc != NO_ERROR) {
    ORMEL_LOG(ERROR, "Failed to get mdevice_token");
    return rc;
  }
  const Json request{json_pack("{s:s}", "mdevice_token", token.c_str())};
  const PlainReply answer = request ? plain_call(EXPRESS_SERVICE, "GetHubInfo", request.get())
                                    : PlainReply{system::NO_IO};
  if (answer.status != 0) {
    ORMEL_LOG(ERROR, "Failed to call pelmar_expressd.GetHubInfo");
    return ERR_CMD_FAILED;
  }
  if (const int rc = mibsh_response_checker(answer.document.get()); rc != NO_ERROR) return rc;
  const char* const text = json_string_value(answer.data());
  if (!text) {
    ORMEL_LOG(ERROR, "GetHubInfo output missing 'data' string");
    return ERR_WRONG_JSON_FORMAT;
  }
  ORMEL_LOG(INFO, "GetHubInfo data: %s", text);
  json_error_t error{};
  const Json inner{json_loads(text, 0, &error)};
  if (!inner) {
    ORMEL_LOG(ERROR, "Failed to parse inner data JSON: %s", error.text);
    return ERR_WRONG_JSON_FORMAT;
  }
  const json_t* const router = json_object_get(inner.get(), "router_region");
  take_text(router, "device_name", router_name);
  take_text(router, "public_ip", router_ip);
  const json_t* const supernode = json_object_get(inner.get(), "supernode_region");
  take_text(supernode, "device_name", supernode_name);
  take_text(supernode, "public_ip", supernode_ip);
  return NO_ERROR;
}

int mibsh_get_ipsec_status(int& router, int& supernode) {
  const PlainReply answer = plain_call(EXPRESS_SERVICE, "GetIpsecStatus");
  const json_t* const data = ipsec_data(answer);
  const json_t* const router_states = data ? states_of(data, "router") : nullptr;
  if (!router_states) return ERR_CMD_FAILED;
  router = ipsec_connetion_status_statistic(router_states);
  const json_t* const supernode_states = states_of(data, "supernode");
  if (!supernode_states) return ERR_CMD_FAILED;
  supernode = ipsec_connetion_status_statistic(supernode_states);
  ORMEL_LOG(INFO, "router_status: %d, supernode_status: %d", router, supernode);
  return NO_ERROR;
}

int ipsec_connetion_status_statistic(const json_t* states) {
  size_t up = 0;
  const char* name = nullptr;
  json_t* state = nullptr;
  json_object_foreach(const_cast<json_t*>(states), name,
                      state) {  // the macro knows no constant objects
    if (json_is_integer(state) && json_integer_value(state) == CONNECTED) ++up;
  }
  if (up == 0) return 0;
  return up == json_object_size(states) ? 1 : 2;
}

int mibsh_get_supernode_remaining(JsonValue& out) {
  const PlainReply answer = plain_call(EXPRESS_SERVICE, "GetSupernodeRemaining");
  if (answer.status != 0) {
    ORMEL_LOG(ERROR, "Failed to call pelmar_expressd.GetSupernodeRemaining");
    return ERR_CMD_FAILED;
  }
  if (const int rc = mibsh_response_checker(answer.document.get()); rc != NO_ERROR) {
    ORMEL_LOG(ERROR, "Failed to check GetSupernodeRemaining response");
    return rc;
  }
  const json_t* const data = answer.data();
  if (!json_is_object(data)) {
    ORMEL_LOG(ERROR, "GetSupernodeRemaining output missing 'data' object");
    return ERR_WRONG_JSON_FORMAT;
  }
  const bool complete = all_counters(data);
  if (!complete) {
    ORMEL_LOG(ERROR,
              "GetSupernodeRemaining output missing 'remainingThroughput', 'renewalDate', "
              "'throughputCapacity' or "
              "'lastBillingDate' integer");
  }
  for (const Counter& counter : COUNTERS) {
    const json_int_t value = complete ? json_integer_value(json_object_get(data, counter.told)) : 0;
    out[counter.shown] = static_cast<int64_t>(value);
  }
  return NO_ERROR;
}

int mibsh_get_supernode_devices(JsonValue& out) {
  size_t count = 0;
  return copy_array("GetSupernodeDevices", out, count);
}

int mibsh_supernode_recent_billing_daily_traffic(JsonValue& out) {
  size_t count = 0;
  const int rc = copy_array("SupernodeRecentBillingDailyTraffic", out, count);
  if (rc == NO_ERROR)
    ORMEL_LOG(INFO, "SupernodeRecentBillingDailyTraffic returned %zu records", count);
  return rc;
}

int mibsh_update_and_check_timeout(bool mqtt, bool vpn, bool& is_mqtt_timeout,
                                   bool& is_ipsec_timeout) {
  const Json request{
      json_pack("{s:b, s:b}", "mqtt_status", mqtt ? 1 : 0, "vpn_status", vpn ? 1 : 0)};
  const PlainReply answer = plain_call(TOKEN_SERVICE, "Update_and_check_timeout", request.get());
  if (answer.status != 0) {
    ORMEL_LOG(ERROR, "Failed to call mibsh ormel_network_service.Update_and_check_timeout");
    return ERR_CMD_FAILED;
  }
  if (!answer.document) {
    ORMEL_LOG(ERROR, "Failed to parse timeout response JSON: %s", answer.reason.c_str());
    return ERR_WRONG_JSON_FORMAT;
  }
  const json_t* const data = answer.data();
  is_mqtt_timeout = json_is_true(json_object_get(data, "is_mqtt_timeout"));
  is_ipsec_timeout = json_is_true(json_object_get(data, "is_ipsec_timeout"));
  ORMEL_LOG(INFO,
            "mibsh_update_and_check_timeout: mqtt_status: %d, vpn_status: %d, is_mqtt_timeout: %d, "
            "is_ipsec_timeout: "
            "%d",
            mqtt, vpn, is_mqtt_timeout, is_ipsec_timeout);
  return NO_ERROR;
}

}  // namespace ormel::pelmar
