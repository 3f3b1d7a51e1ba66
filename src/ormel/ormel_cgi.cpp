#include "ormel/ormel_cgi.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <iterator>
#include <string>
#include <unistd.h>

#include <fenro/auth.h>

#include "ormel/config_pool.h"
#include "ormel/ormel_cgi_config.h"
#include "ormel/ormel_cgi_gateway.h"
#include "ormel/system_log.h"

namespace ormel {

bool support_json_type = true;

USER_TYPE system::auth_user_session(const char* sid) {
  _session session{};
  if (!sid || auth_get_session(sid, 1, &session) != 0) return INVAILD_USER;
  return User_Belongs_To_Group(session.user, "administrators") ? ADMIN_USER : GENERAL_USER;
}

namespace cgi {

namespace {

constexpr std::string_view ANY_MEDIA_TYPE = "*/*";
constexpr std::string_view POOL_ROUTES = "/ormel/config/";  // what holds this works on the pool

// The route whose work has not landed yet: it keeps its place, its session check and its envelope.
int not_supported(JsonValue& response) {
  return serve(response, ADMINISTRATOR, [](const Request&, JsonValue&) -> int { return ERR_NOT_SUPPORT; });
}

constexpr Route ROUTES[] = {
    {"/ormel/config/add", config::add},
    {"/ormel/config/show", config::show},
    {"/ormel/config/remove", config::remove},
    {"/ormel/config/connect", config::connect},
    {"/ormel/config/disconnect", config::disconnect},
    {"/ormel/config/check", not_supported},
    {"/ormel/config/import", not_supported},
    {"/ormel/config/modify", not_supported},
    {"/ormel/config/download", not_supported},
    {"/ormel/config/downloadcert", not_supported},
    {"/ormel/connection/list", not_supported},
    {"/ormel/connection/kick", not_supported},
    {"/ormel/log/event", not_supported},
    {"/ormel/log/client", not_supported},
    {"/ormel/log/server", not_supported},
    {"/ormel/log/cleanup", not_supported},
    {"/ormel/log/dump", not_supported},
    {"/ormel/misc/env", not_supported},
    {"/ormel/misc/nic", not_supported},
    {"/ormel/misc/dns", not_supported},
    {"/ormel/misc/gw", not_supported},
    {"/ormel/misc/member", not_supported},
    {"/ormel/misc/vpn_client_info", not_supported},
    {"/ormel/misc/interface_rate", not_supported},
    {"/ormel/user/query", not_supported},
    {"/ormel/privilege/get", not_supported},
    {"/ormel/privilege/set", not_supported},
    {"/ormel/privilege/unset", not_supported},
    {"/ormel/privilege/block_show", not_supported},
    {"/ormel/privilege/block", not_supported},
    {"/ormel/privilege/remove_block_user", not_supported},
    {"/ormel/gateway/get", gateway::get},
    {"/ormel/gateway/set", gateway::set},
    {"/ormel/gateway/get_vpn_gw", gateway::get_vpn_gw},
    {"/ormel/pelmar/check_device", not_supported},
    {"/ormel/pelmar/check_virtual_ip", not_supported},
    {"/ormel/pelmar/device_register", not_supported},
    {"/ormel/pelmar/device_unregister", not_supported},
    {"/ormel/pelmar/get_tamid", not_supported},
    {"/ormel/pelmar/get_pelmar_status", not_supported},
    {"/ormel/pelmar/join_pelmar_precheck", not_supported},
    {"/ormel/pelmar/modify_virtual_ip", not_supported},
    {"/ormel/pelmar/organization_list", not_supported},
    {"/ormel/pelmar/region_list", not_supported},
    {"/ormel/pelmar/feature_tour/show", not_supported},
    {"/ormel/pelmar/feature_tour/set", not_supported},
    {"/ormel/pelmar/min_fenro_version", not_supported},
    {"/ormel/pelmar/min_ormel_version", not_supported},
    {"/ormel/pelmar/compatible_version", not_supported},
    {"/ormel/pelmar/supernode_recent_billing_daily_traffic", not_supported},
    {"/ormel/pelmar/logs", not_supported},
    {"/ormel/oauth_login", not_supported},
};
static_assert(std::size(ROUTES) == 52);

const Route* find_route(std::string_view path) {
  for (const Route& route : ROUTES) {
    if (route.path == path) return &route;
  }
  return nullptr;
}

std::string environment(const char* name) {
  const char* value = std::getenv(name);
  return value ? value : "";
}

// What the web server passes in the environment and may hold a secret of the client.
void drop_request_from_environment() {
  for (const char* name : {"QUERY_STRING", "REQUEST_URI", "HTTP_COOKIE", "HTTP_AUTHORIZATION", "HTTP_REFERER"}) {
    unsetenv(name);
  }
}

// A descriptor that the web server left closed would be taken by the next file that is opened.
void open_standard_streams() {
  int fd = 0;
  do {
    fd = open("/dev/null", O_RDWR);
  } while (fd >= 0 && fd <= STDERR_FILENO);
  if (fd > STDERR_FILENO) close(fd);
}

void unblock_signals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGUSR1);
  sigaddset(&signals, SIGTERM);
  sigprocmask(SIG_UNBLOCK, &signals, nullptr);
}

void print_reply(const JsonValue& response) {
  // The last thing that a request does. A client that has gone away must not keep it from cleaning up.
  std::signal(SIGPIPE, SIG_IGN);
  std::printf("Content-type: %s; charset=utf-8\r\n\r\n", support_json_type ? "application/json" : "text/plain");
  response.print(stdout);
  std::fflush(stdout);
}

int fail(JsonValue& response, int code, const std::string& reason) {
  ORMEL_LOG(ERROR, "%d, %s", code,
            escape_json(reason).c_str());  // escaped: it can quote the address that was asked for
  response.erase();
  response["error"] = code;
  response["reason"] = reason;
  print_reply(response);
  return code;
}

int fail(JsonValue& response, int code) {
  return fail(response, code, get_error_message(static_cast<unsigned int>(code)));
}

int succeed(JsonValue& response) {
  response["error"] = static_cast<int32_t>(NO_ERROR);
  print_reply(response);
  return NO_ERROR;
}

}  // namespace

Request::Request() : user_(INVAILD_USER) {
  drop_request_from_environment();
  user_ = system::auth_user_session(get_cgi_var_value(find("sid")));
}

int serve(JsonValue& response, Access access, Work work) {
  const Request request;
  if (request.user() == INVAILD_USER) return fail(response, ERR_SESSION_FAIL);
  if (request.user() < access.least) return fail(response, access.refusal);
  const int rc = work(request, response);
  return rc == NO_ERROR ? succeed(response) : fail(response, rc);
}

int main(int, char**) {
  open_standard_streams();
  unsetenv("HTTP_PROXY");  // a header of the client, which libcurl would take for a setting
  unblock_signals();

  const std::string url = environment("SCRIPT_URL");
  const std::string accept = environment("HTTP_ACCEPT");
  support_json_type = !accept.ends_with(ANY_MEDIA_TYPE);

  JsonValue response;
  const Route* route = find_route(url);
  system::set_log_file_wrapper();
  if (!route) return fail(response, ERR_API_NOT_FOUND, get_error_message(ERR_API_NOT_FOUND) + url);

  ORMEL_LOG(DEBUG, "==============API: %s==================", url.c_str());
  if (url.find(POOL_ROUTES) != std::string::npos) ormel::config::cm.load();
  system::log_rotate(__log_file__);
  return route->handler(response);
}

}  // namespace cgi
}  // namespace ormel
