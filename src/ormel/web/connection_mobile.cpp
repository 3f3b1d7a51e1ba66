// The registration of mobile devices, which log in to the OpenVPN server with the identifier that
// they get here.
#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <string_view>

#include <fenro/auth.h>

#include "ormel/actions/log_db_mobile.h"
#include "ormel/base/handle.h"
#include "ormel/base/text.h"
#include "ormel/web/handlers.h"
#include "ormel/web/serve.h"

namespace ormel::cgi::connection {

namespace {

constexpr const char* MAC = "^([0-9A-Fa-f]{2}:){5}([0-9A-Fa-f]{2})$";
constexpr const char* INTERFACE = "^(eth|ppp|tun)[0-9]+$";
constexpr std::string_view PHYSICAL = "eth";
constexpr long LAST_SERVER_INTERFACE = 1000;  // "ppp" and "tun" above are those of client profiles

bool is_interface(const char* name) {
  if (!Regex{INTERFACE}.search(name)) return false;
  if (std::string_view{name}.starts_with(PHYSICAL)) return true;
  return std::strtol(name + PHYSICAL.size(), nullptr, 10) > LAST_SERVER_INTERFACE;
}

// The device of the request. Empty, or the name of the variable that is wrong.
std::string read_device(const Request& request, db_device_info_data& device) {
  const char* const mac = request.value("mac");
  if (!Regex(MAC, REG_EXTENDED | REG_ICASE).search(mac)) return "mac";
  fill_field(device.mac, mac);
  if (request.filled("nat") && !is_interface(request.value("nat"))) return "nat";
  fill_field(device.nic, request.value("nat"));
  if (!request.filled("device")) return "device";
  std::string name = request.value("device");
  std::replace(name.begin(), name.end(), '\t', ' ');
  fill_field(device.dev_name, name);
  return "";
}

Outcome register_device(const Request& request, JsonValue& reply) {
  _session session{};
  const char* const sid = request.value("sid");
  if (auth_get_session(sid, 1, &session) != 0) return {ERR_SESSION_FAIL};
  const auto device = std::make_unique<db_device_info_data>();
  fill_field(device->fenrosid, sid);
  fill_field(device->user_id, field_text(session.user));
  if (const std::string wrong = read_device(request, *device); !wrong.empty())
    return {ERR_GENERAL, wrong};
  device->time = static_cast<uint64_t>(std::time(nullptr));

  ormel_mobile_gen_uuid_data_get identifier{};
  if (add_device_info(device.get(), &identifier) != 0) return {ERR_BACKGROUND_PROCESS};
  reply["data"] = field_text(identifier.ormel_uuid);
  return {};
}

}  // namespace

int temporary(JsonValue& response) {
  return serve({"", ANY_SESSION, CHANGES, json<register_device>}, response);
}

}  // namespace ormel::cgi::connection
