// What a client profile and the network daemon know of each other: counters of the live tunnel, and
// the profile's entry in the list of external devices.
#include <cstdint>

#include "base/tunnel.h"
#include "ormel/base/error.h"
#include "ormel/base/log.h"
#include "ormel/config/record.h"
#include "ormel/host/bus.h"

namespace ormel::config {

namespace {

// By ClientConfig::OptExternalDev.
constexpr const char* EXTERNAL_DEV_METHODS[] = {"external_dev.register", "external_dev.modify",
                                                "external_dev.unregister"};

}  // namespace

void ClientConfig::update_connection() {
  const std::string interface = interface_name(type, index);
  if (interface.empty()) return;
  const Json request{json_pack("{s:s}", "name_interface", interface.c_str())};
  const system::BusReply answer = system::bus_call(
      {__func__, system::NETWORK_SERVICE, system::INTERFACE_COUNTERS}, request.get());
  if (answer.rc != NO_ERROR) return;

  const json_t* data = answer.reply.data();
  if (!json_is_object(data)) {
    ORMEL_LOG(ERROR, "%s: data isn't an object. %d: %s\n", __func__, -1, "");
    return;
  }
  const json_t* rx_bytes = json_object_get(data, "rx_bytes");
  const json_t* tx_bytes = json_object_get(data, "tx_bytes");
  const json_t* rx_speed = json_object_get(data, "rx_rate");
  const json_t* tx_speed = json_object_get(data, "tx_rate");
  for (const json_t* counter : {rx_bytes, tx_bytes, rx_speed, tx_speed}) {
    if (json_is_number(counter)) continue;
    ORMEL_LOG(ERROR, "%s: tx/rx bytes and tx/rx rate are not correct. %d: %s, name: %s.\n",
              __func__, -1, "", interface.c_str());
    return;
  }
  rx = system::cut_number<uint64_t>(rx_bytes);
  tx = system::cut_number<uint64_t>(tx_bytes);
  rx_rate = system::cut_number<int>(rx_speed, 0);
  tx_rate = system::cut_number<int>(tx_speed, 0);
}

int ClientConfig::mibcall_external_dev(OptExternalDev op) {
  Json request{json_pack("{s:s}", "key", section.c_str())};
  if (op != opt_ext_dev_unregister) {
    const struct {
      const char* key;
      std::string value;
    } members[] = {
        {"as_default_gw", "0"},
        {"profile", system::valid_utf8(name)},
        {"status", "0"},
        {"ip4_ip", ""},
        {"ip4_netmask", ""},
        {"ifname", interface_name(type, index)},
        {"type", "VPN"},
        {"protocol", tunnel_of(type).protocol},
        {"country_code", ""},
        {"dns", system::valid_utf8(registered_dns())},
        {"ip4_gw", registered_gateway()},
    };
    for (const auto& member : members) {
      json_object_set_new(request.get(), member.key,
                          json_stringn(member.value.data(), member.value.size()));
    }
  }
  return system::bus_call({__func__, system::NETWORK_SERVICE, EXTERNAL_DEV_METHODS[op]},
                          request.get())
      .rc;
}

}  // namespace ormel::config
