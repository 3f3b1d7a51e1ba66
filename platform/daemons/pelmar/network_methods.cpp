#include <ctime>

#include "daemons/pelmar/methods.h"
#include "daemons/pelmar/replies.h"
#include "daemons/pelmar/tokens.h"

namespace fenro::pelmar {

namespace {

long seconds_since_start() {
  timespec time{};
  clock_gettime(CLOCK_BOOTTIME, &time);
  return time.tv_sec;
}

bus::Reply get_cloud_token(const CloudClient& cloud) {
  const std::string token = cloud_token(cloud);
  return token.empty() ? fail("nobody is logged in") : succeed(json_text(token));
}

// {"oauth_response_encoded":TEXT}
bus::Reply keep_cloud_token(std::string_view body) {
  const Json request = parse_request(body);
  const char* const encoded = text_or_null(request.get(), "oauth_response_encoded");
  if (!encoded || !save_cloud_token(encoded)) return {MIB_IS_INVALID};  // the caller reads no reply
  return succeed(json_text(""));
}

// {"orgId":TEXT}
bus::Reply get_pelmar_token(const CloudClient& cloud, std::string_view body) {
  const Json request = parse_request(body);
  const char* const organization = text_or_null(request.get(), "orgId");
  if (!organization || !*organization) return fail("orgId is missing");
  const std::string token = pelmar_token(cloud, organization);
  return token.empty() ? fail("the cloud gives no token") : succeed(json_text(token));
}

// {"mqtt_status":BOOLEAN,"vpn_status":BOOLEAN}
bus::Reply update_and_check_timeout(LinkWatch& links, std::string_view body) {
  const Json request = parse_request(body);
  const json_t* const cloud = json_object_get(request.get(), "mqtt_status");
  const json_t* const tunnels = json_object_get(request.get(), "vpn_status");
  if (!json_is_boolean(cloud) || !json_is_boolean(tunnels)) return fail("a status is missing");
  const LinkWatch::Timeouts timeouts =
      links.report(json_is_true(cloud), json_is_true(tunnels), seconds_since_start());
  return succeed(Json{json_pack("{s:b, s:b}", "is_mqtt_timeout", timeouts.cloud ? 1 : 0,
                                "is_ipsec_timeout", timeouts.tunnels ? 1 : 0)});
}

}  // namespace

void serve_network(bus::Server& server, const CloudClient& cloud, LinkWatch& links) {
  server.on("Get_cloudtoken", [&cloud](std::string_view) { return get_cloud_token(cloud); });
  server.on("Save_cloudtoken", keep_cloud_token);
  server.on("Get_pelmartoken",
            [&cloud](std::string_view body) { return get_pelmar_token(cloud, body); });
  server.on("Update_and_check_timeout",
            [&links](std::string_view body) { return update_and_check_timeout(links, body); });
}

}  // namespace fenro::pelmar
