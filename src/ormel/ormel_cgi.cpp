#include "ormel/ormel_cgi.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <string>

#include <fenro/auth.h>

#include "ormel/config_pool.h"
#include "ormel/ormel_cgi_config.h"
#include "ormel/ormel_cgi_config_edit.h"
#include "ormel/ormel_cgi_gateway.h"
#include "ormel/ormel_cgi_process.h"
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
    {"/ormel/config/check", config::check},
    {"/ormel/config/import", config::import},
    {"/ormel/config/modify", config::modify},
    {"/ormel/config/download", config::download},
    {"/ormel/config/downloadcert", config::downloadcert},
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

// Printing is the last thing that a request does. A client that has gone away must not keep it from cleaning up.
void print_head(const std::string& head) {
  std::signal(SIGPIPE, SIG_IGN);
  std::printf("%s\r\n", head.c_str());
}

void print_reply(const JsonValue& response) {
  const std::string media_type = support_json_type ? "application/json" : "text/plain";
  print_head("Content-type: " + media_type + "; charset=utf-8\r\n");
  response.print(stdout);
  std::fflush(stdout);
}

void log_failure(int code, const std::string& reason) {
  // Escaped: it can quote the address that was asked for.
  ORMEL_LOG(ERROR, "%d, %s", code, escape_json(reason).c_str());
}

std::string reason_of(int code) {
  return get_error_message(static_cast<unsigned int>(code));
}

int fail(JsonValue& response, const Outcome& outcome) {
  const std::string reason = outcome.reason.empty() ? reason_of(outcome.code) : outcome.reason;
  log_failure(outcome.code, reason);
  if (!outcome.keeps_data) response.erase();
  response["error"] = outcome.code;
  response["reason"] = reason;
  print_reply(response);
  return outcome.code;
}

int fail(JsonValue& response, int code) {
  return fail(response, Outcome{code});
}

int succeed(JsonValue& response) {
  response["error"] = static_cast<int32_t>(NO_ERROR);
  print_reply(response);
  return NO_ERROR;
}

// 0, or the code for a session that is not good enough.
int check_access(const Request& request, Access access) {
  if (request.user() == INVAILD_USER) return ERR_SESSION_FAIL;
  return request.user() < access.least ? access.refusal : NO_ERROR;
}

int refuse_download(int code) {
  log_failure(code, reason_of(code));
  print_head("Status: 404 Not Found\r\nContent-Type: text/html\r\n");
  std::fflush(stdout);
  return code;
}

}  // namespace

Request::Request() : CgiRequest(settings_with_query()), user_(INVAILD_USER) {
  withhold_request();
  user_ = system::auth_user_session(get_cgi_var_value(find("sid")));
}

int serve(JsonValue& response, Access access, DetailedWork work) {
  const Request request;
  if (const int rc = check_access(request, access); rc != NO_ERROR) return fail(response, rc);
  const Outcome outcome = work(request, response);
  return outcome.code == NO_ERROR ? succeed(response) : fail(response, outcome);
}

int serve(JsonValue& response, Access access, Work work) {
  const Request request;
  if (const int rc = check_access(request, access); rc != NO_ERROR) return fail(response, rc);
  const int rc = work(request, response);
  return rc == NO_ERROR ? succeed(response) : fail(response, rc);
}

int serve_download(Access access, DownloadWork work) {
  const Request request;
  if (const int rc = check_access(request, access); rc != NO_ERROR) return refuse_download(rc);
  Download file;
  if (const int rc = work(request, file); rc != NO_ERROR) return refuse_download(rc);
  print_head(file.head);
  std::fwrite(file.body.data(), 1, file.body.size(), stdout);
  return std::fflush(stdout) == 0 && !std::ferror(stdout) ? NO_ERROR : ERR_GENERAL;
}

int main(int, char**) {
  open_standard_streams();
  withhold_request();
  const UploadsGuard guard;
  unblock_signals();

  const std::string url = environment("SCRIPT_URL");
  const std::string accept = environment("HTTP_ACCEPT");
  support_json_type = !accept.ends_with(ANY_MEDIA_TYPE);

  JsonValue response;
  const Route* route = find_route(url);
  system::set_log_file_wrapper();
  if (!route) return fail(response, Outcome{ERR_API_NOT_FOUND, reason_of(ERR_API_NOT_FOUND) + url});

  ORMEL_LOG(DEBUG, "==============API: %s==================", url.c_str());
  if (url.find(POOL_ROUTES) != std::string::npos) ormel::config::cm.load();
  system::log_rotate(__log_file__);
  return route->handler(response);
}

}  // namespace cgi
}  // namespace ormel
