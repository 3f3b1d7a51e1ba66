#include <arpa/inet.h>
#include <bit>
#include <ifaddrs.h>
#include <net/if.h>
#include <set>

#include "daemons/pelmar/member_files.h"
#include "daemons/pelmar/methods.h"
#include "daemons/pelmar/replies.h"
#include "daemons/pelmar/security_associations.h"

namespace fenro::pelmar {

namespace {

constexpr const char* SCRIPT = "/etc/init.d/pelmar_express.sh";
constexpr const char* NO_REPORT = "the cloud has not sent a report yet";

json_t* report_member(const CloudReport::State& state, const char* key) {
  return json_object_get(state.report.get(), key);
}

// One member of the cloud's report, unchanged.
bus::Reply pass_on(const CloudReport& report, const char* key) {
  const CloudReport::State state = report.state();
  const json_t* const part = report_member(state, key);
  return part ? succeed(Json{json_deep_copy(part)}) : fail(NO_REPORT);
}

bus::Reply get_device_token() {
  const std::string token = this_device().token;
  return token.empty() ? fail("this device has not joined") : succeed(json_text(token));
}

// 1 while the cloud answers this device, 0 while it does not.
bus::Reply get_cloud_status(const CloudReport& report) {
  return succeed(Json{json_integer(report.state().connected ? 1 : 0)});
}

// {"mdevice_token":TEXT}: both regions, as a text that holds JSON.
bus::Reply get_hub_info(const CloudReport& report, std::string_view body) {
  const Json request = parse_request(body);
  const char* const token = text_or_null(request.get(), "mdevice_token");
  if (!token || !*token || this_device().token != token)
    return fail("that is not the token of this device");
  const CloudReport::State state = report.state();
  if (!state.report) return fail(NO_REPORT);
  const Json regions{json_object()};
  for (const char* region : {"router_region", "supernode_region"}) {
    if (json_t* const part = report_member(state, region))
      json_object_set(regions.get(), region, part);
  }
  return succeed(json_text(compact(regions.get())));
}

// One member for the tunnel to a region's device; empty without a device.
Json tunnels_to(const json_t* region, const SecurityAssociations& associations) {
  Json states{json_object()};
  const char* const name = text_or_null(region, "device_name");
  const TunnelState state = tunnel_state(associations, text_or_null(region, "public_ip"));
  if (name) json_object_set_new(states.get(), name, json_integer(static_cast<int>(state)));
  return states;
}

bus::Reply get_ipsec_status(const CloudReport& report) {
  const CloudReport::State state = report.state();
  const SecurityAssociations associations = security_associations();
  return succeed(Json{json_pack(
      "{s:o, s:o}", "router",
      tunnels_to(report_member(state, "router_region"), associations).release(), "supernode",
      tunnels_to(report_member(state, "supernode_region"), associations).release())});
}

// "address/prefix" of each network of the host except the loopback's.
Json local_networks() {
  Json networks{json_array()};
  ifaddrs* list = nullptr;
  if (getifaddrs(&list) != 0) return networks;
  const std::unique_ptr<ifaddrs, FreeWith<freeifaddrs>> owner{list};
  for (const ifaddrs* entry = list; entry; entry = entry->ifa_next) {
    if (!entry->ifa_addr || !entry->ifa_netmask || entry->ifa_addr->sa_family != AF_INET) continue;
    if ((entry->ifa_flags & IFF_LOOPBACK) != 0) continue;
    char text[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in*>(entry->ifa_addr)->sin_addr, text,
              sizeof text);
    const int bits =
        std::popcount(reinterpret_cast<const sockaddr_in*>(entry->ifa_netmask)->sin_addr.s_addr);
    json_array_append_new(networks.get(),
                          json_string((text + ('/' + std::to_string(bits))).c_str()));
  }
  return networks;
}

// Reports the host's networks and the device's address to the cloud.
bus::Reply update_network_interfaces(const CloudClient& cloud) {
  const Device device = this_device();
  if (device.id.empty() || !switched_on(CLOUDAGENT_SWITCH)) return {MIB_NOT_READY};
  const Json body{json_pack("{s:o, s:o}", "virtualIP",
                            json_text(join_setting("virtual_ip")).release(), "subnets",
                            local_networks().release())};
  const CloudReply reply =
      cloud.ask({CloudService::PELMAR,
                 "PUT",
                 "/dalnet/morvi/api/v1/devices/" + cloud.path_part(device.id) + "/network",
                 {"Authorization: Device " + device.token},
                 compact(body.get())});
  return reply.good() ? succeed(json_text("")) : bus::Reply{MIB_IO_FAILURE};
}

bus::Reply reset_interface() {
  if (!switched_on(EXPRESS_SWITCH)) return {MIB_NOT_READY};
  return reset_virtual_interface() ? succeed(json_text("")) : bus::Reply{MIB_IO_FAILURE};
}

}  // namespace

bool reset_virtual_interface() {
  char* argv[] = {const_cast<char*>(SCRIPT), const_cast<char*>("reset_virtual_interface"), nullptr};
  return mib_io_execv(nullptr, nullptr, nullptr, argv) == 0;
}

void serve_express(bus::Server& server, const CloudClient& cloud, const CloudReport& report) {
  server.on("GetDeviceToken", [](std::string_view) { return get_device_token(); });
  server.on("GetCloudStatus", [&](std::string_view) { return get_cloud_status(report); });
  server.on("GetHubInfo", [&](std::string_view body) { return get_hub_info(report, body); });
  server.on("GetIpsecStatus", [&](std::string_view) { return get_ipsec_status(report); });
  server.on("GetSupernodeRemaining",
            [&](std::string_view) { return pass_on(report, "supernode"); });
  server.on("GetSupernodeDevices",
            [&](std::string_view) { return pass_on(report, "supernodeDevices"); });
  server.on("SupernodeRecentBillingDailyTraffic",
            [&](std::string_view) { return pass_on(report, "supernodeDailyTraffic"); });
  server.on("UpdateNetworkInterfaces",
            [&](std::string_view) { return update_network_interfaces(cloud); });
  server.on("ResetVirtualInterface", [](std::string_view) { return reset_interface(); });
}

}  // namespace fenro::pelmar
