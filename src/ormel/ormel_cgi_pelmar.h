// The membership over the web: the whole road of a join from the first version check to leaving again.
#pragma once

#include <string_view>

#include "ormel/json.h"

namespace ormel::cgi::pelmar {

// Each answers one request; the code of the reply.
int pelmar_check_device(JsonValue& response);
int pelmar_check_virtual_ip(JsonValue& response);
int pelmar_device_register(JsonValue& response);
int pelmar_device_unregister(JsonValue& response);
int pelmar_get_tamid(JsonValue& response);
int pelmar_get_pelmar_status(JsonValue& response);
int pelmar_join_pelmar_precheck(JsonValue& response);
int pelmar_modify_virtual_ip(JsonValue& response);
int pelmar_organization_list(JsonValue& response);
int pelmar_region_list(JsonValue& response);
int pelmar_feature_tour_show(JsonValue& response);
int pelmar_feature_tour_set(JsonValue& response);
int pelmar_min_fenro_version(JsonValue& response);
int pelmar_min_ormel_version(JsonValue& response);
int pelmar_compatible_version(JsonValue& response);
int pelmar_supernode_recent_billing_daily_traffic(JsonValue& response);
int pelmar_logs(JsonValue& response);
// This one sends a page in place of the envelope: the login provider leads the browser here.
int pelmar_oauth_login(JsonValue& response);

// Up to 15 digits and points, three of which are points; values of the fields are not looked at.
[[nodiscard]] bool is_valid_ipv4_format(std::string_view text);
// Letters, digits, "-" and "_" alone, and at least one of them.
[[nodiscard]] bool is_alphanumeric_safe(std::string_view text);
[[nodiscard]] bool has_path_traversal(std::string_view text);

}  // namespace ormel::cgi::pelmar
