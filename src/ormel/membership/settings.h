// The settings that membership starts from: every key of its two files, and the facts about this
// device that the cloud gets. Nothing is kept between calls; each reads its file again, through the
// appliance's tools.
//
// Unless something else is said an operation gives 0 or ERR_CMD_FAILED, and logs why it failed. A
// key that is missing and has no default is a failure.
#pragma once

#include <string>

namespace ormel::pelmar {

constexpr const char* PELMAR_CONF = "/etc/config/ormel/pelmar.conf";
constexpr const char* JOIN_SECTION = "Join Pelmar";
constexpr const char* TAMID_CONF = "/etc/config/ormel/tamid.conf";
constexpr const char* TAMID_SECTION = "Vantri ID Service";

constexpr const char* ORG_ID_KEY = "PELMAR_ORG_ID";
constexpr const char* REGION_ID_KEY = "PELMAR_REGION_ID";
constexpr const char* SITE_ID_KEY = "PELMAR_SITE_ID";
constexpr const char* SERIAL_KEY = "pelmar_serial_num";
constexpr const char* EMAIL_KEY = "EMAILS";
constexpr const char* CONTACT_KEY = "DISPLAY_NAME";
constexpr const char* CLOUD_KEY = "REGION";
constexpr const char* TOKEN_STATUS_KEY = "tamid_token_status";
constexpr const char* JOINED_STATUS = "already_join_pelmar";  // the device is a member
constexpr const char* LOGIN_STATUS =
    "login_temp";  // an account was logged in, nothing is joined yet
constexpr const char* GLOBAL_REGION = "GLB";
constexpr const char* AUTO_REGION = "auto";       // the cloud's groups decide
constexpr const char* SUPERNODE_REGION = "supn";  // no hub of the organisation, a super node

constexpr const char* PRODUCTION_SITE =
    "production";  // the environment unless the settings say otherwise

// Folder that this application is installed in.
[[nodiscard]] int get_install_path(std::string& out);
// The environment that the developer switch application picked, production where that is not
// installed.
[[nodiscard]] int get_hollex_site(std::string& out);
[[nodiscard]] int get_pelmar_site(std::string& out);
// These two give 0 with an empty name after a failed read: a page shows a blank then.
int get_org_name(std::string& out);
int get_region_name(std::string& out);
// An empty value is a failure too.
[[nodiscard]] int get_virtual_ip(std::string& out);
[[nodiscard]] int get_org_id(std::string& out);
[[nodiscard]] int get_region_id(std::string& out);
// Any key of the section about the join.
[[nodiscard]] int get_join_pelmar_info(const std::string& key, std::string& out);
// "GLB" for the global cloud, any other value for that of China.
int get_global_or_china(std::string& out);
// Display name of the account.
[[nodiscard]] int get_contact(std::string& out);

// Of two keys the first stays written when the second fails.
[[nodiscard]] int set_org_id(const std::string& id, const std::string& name);
[[nodiscard]] int set_region_id(const std::string& id, const std::string& name);
[[nodiscard]] int set_virtual_ip(const std::string& ip);
[[nodiscard]] int set_serial_number(const std::string& serial);

// The first line of the host's name file.
[[nodiscard]] int get_host_name(std::string& out);
[[nodiscard]] int get_nas_model_name(std::string& out);
// The hardware address of eth0, whichever interface carries traffic.
[[nodiscard]] int get_eth0_mac(std::string& out);
// The number of set bits of a dotted mask, consecutive or not.
[[nodiscard]] int maskToCIDR(const std::string& mask);
// Empty if there is none.
[[nodiscard]] std::string get_timezone();

// The switch for developers.
[[nodiscard]] bool is_test_flag_set();
// Requests go out without a look at the server's certificate.
[[nodiscard]] bool is_insecure_curl();

}  // namespace ormel::pelmar
