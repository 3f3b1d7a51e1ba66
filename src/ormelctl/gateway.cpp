// The default gateway: which tunnels carry this host's own traffic.
#include "ormel/base/error.h"
#include "ormelctl/profile.h"

namespace ormelctl {
namespace {

// The target of a profile by the type and index of an object; "none" without one.
std::string target_of(const json_t* tunnel) {
  const Protocol* protocol = protocol_of(static_cast<int>(number_of(tunnel, "type")));
  return protocol && number_of(tunnel, "index") > 0
             ? protocol->name + '/' + std::to_string(number_of(tunnel, "index"))
             : "none";
}

}  // namespace

Result gateway_show(const Arguments&) {
  const Reply policy = call("/ormel/gateway/get");
  if (policy.error != 0) return failed(policy.error, policy.reason);
  const Reply now = call("/ormel/gateway/get_vpn_gw");
  const json_t* setting = json_object_get(policy.data(), "gw_setting");
  const bool on = number_of(setting, "as_gw_en") == 1;
  const bool second = on && number_of(setting, "failover_en") == 1;
  // Without an answer of the network daemon nothing is known of the tunnel in use.
  const std::string in_use = json_is_object(now.data()) ? target_of(now.data()) : "unknown";
  ormel::Json data{
      json_pack("{s:b, s:s, s:s, s:s}", "on", on ? 1 : 0, "in_use", in_use.c_str(), "first",
                on ? target_of(json_object_get(setting, "gw1")).c_str() : "none", "second",
                second ? target_of(json_object_get(setting, "gw2")).c_str() : "none")};
  if (on) json_object_set_new(data.get(), "snat", json_boolean(number_of(setting, "snat") == 1));
  if (second)
    json_object_set_new(data.get(), "back_minutes",
                        json_integer(number_of(setting, "failover_interval")));
  return done("", std::move(data));
}

Result gateway_set(const Arguments& arguments) {
  Form form{{"as_gw_en", "1"}, {"snat", arguments.value("snat", "yes") == "no" ? "0" : "1"}};
  for (size_t i = 0; i < arguments.words.size(); ++i) {
    Profile profile;
    Result problem;
    if (!find_profile(arguments.words[i], profile, problem)) return problem;
    const std::string name = "gw" + std::to_string(i + 1);
    form.emplace_back(name + "_type", std::to_string(profile.protocol->client));
    form.emplace_back(name + "_index", std::to_string(profile.index));
  }
  const bool second = arguments.words.size() == 2;
  if (arguments.has("back") && !second)
    return failed(Exit::Usage, "--back needs a second profile",
                  "ormelctl gateway set office branch --back 5");
  form.emplace_back("failover_en", second ? "1" : "0");
  if (second)
    form.emplace_back("failover_interval", arguments.value("back", "5") == "never"
                                               ? "-1"
                                               : arguments.value("back", "5"));
  const Reply reply = call("/ormel/gateway/set", form);
  if (reply.error != 0) return failed(reply.error, reply.reason);
  Result result = gateway_show({});
  result.message = "stored; the tunnel carries the traffic once it is connected";
  return result;
}

Result gateway_off(const Arguments&) {
  const Reply reply = call("/ormel/gateway/set", {{"as_gw_en", "0"}});
  return reply.error != 0 ? failed(reply.error, reply.reason)
                          : done("this host's own network carries its traffic");
}

}  // namespace ormelctl
