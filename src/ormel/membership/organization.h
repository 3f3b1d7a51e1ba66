// What the user picks before a join: an organisation of the cloud account and a region of it, which
// is one of its groups of VPN hubs. Also who the account belongs to.
//
// Each operation gives 0 or an ERROR_CODE, logged.
#pragma once

#include <string>

#include "ormel/base/handle.h"

namespace ormel::pelmar {

// The account's organisations, as objects of "name", "organization_id" and "is_default". An account
// without any gets one in the cloud by being asked.
[[nodiscard]] int get_organization_list(Json& out);
[[nodiscard]] int create_organization(const std::string& name, std::string& out_id);
// The groups of an organisation, which need not be the stored one.
[[nodiscard]] int get_region_list(Json& out, const std::string& org_id);
// Stores the first site of an organisation.
[[nodiscard]] int set_site_id(const std::string& org_id);

// The account center's answer about the account as it came. Failures of the transport are
// distinguished here.
[[nodiscard]] int account_center_api_me(std::string& out);
// Stores display name, mail address and region of the account.
[[nodiscard]] int set_pelmar_tamid_conf();
// The stored mail address, which is asked for when there is none.
[[nodiscard]] int get_contact_email(std::string& out);

// The groups of the organisation that the token is for, as they came.
[[nodiscard]] int pelmar_api_vpn_groups(const std::string& pelmar_token, std::string& out);

}  // namespace ormel::pelmar
