// What an import would make of a file, before it is stored: the report on the upload `ovpn`, an
// OpenVPN profile or a configuration file of WireGuard, with the key files of /ormel/config/import.
// A profile that cannot be imported is no failure of the request: the report says so.
#include <memory>
#include <string>

#include "ormel/base/file.h"
#include "ormel/config/pool.h"
#include "ormel/drivers/openvpn/report.h"
#include "ormel/drivers/wireguard/conf_file.h"
#include "ormel/web/config.h"
#include "ormel/web/routes.h"

namespace ormel::cgi::config {

namespace {

constexpr size_t LARGEST = size_t{1} << 20U;  // bytes of an upload

Outcome succeed(const report::Report& found, const char* protocol, JsonValue& reply) {
  Json document = report::document_of(found);
  json_object_set_new(document.get(), "protocol", json_string(protocol));
  reply["data"] = document.release();
  return {};
}

Outcome report_upload(const Request& request, JsonValue& reply) {
  cgi_var* const upload = request.find("ovpn");
  std::string text;
  if (!get_cgi_var_filename(upload) || get_cgi_var_status(upload) != CORRECT_VAR ||
      !system::read_file(request.value("ovpn"), text, LARGEST))
    return {ERR_REGULAR_FILE};
  if (wireguard::is_conf_file(text))
    return succeed(wireguard::report_conf_file(text), "wireguard", reply);

  int rc = NO_ERROR;
  const auto record = import_record(request, rc);
  if (rc != NO_ERROR) return {rc};
  return succeed(ovpn::report_profile(*record->cast<ovpn::ClientConfig>(), ovpn::platform_tools()),
                 "openvpn", reply);
}

constexpr Route ROWS[] = {
    {"/ormel/config/report", ADMINISTRATOR, READS, json<report_upload>},
};

}  // namespace

const Routes REPORT{ROWS};

}  // namespace ormel::cgi::config
