#include "ormel/ormel_cgi.h"

#include <array>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <poll.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include <fenro/auth.h>

#include "ormel/config_pool.h"
#include "ormel/ormel_cgi_config.h"
#include "ormel/ormel_cgi_config_edit.h"
#include "ormel/ormel_cgi_connection.h"
#include "ormel/ormel_cgi_gateway.h"
#include "ormel/ormel_cgi_log.h"
#include "ormel/ormel_cgi_misc.h"
#include "ormel/ormel_cgi_peer.h"
#include "ormel/ormel_cgi_pelmar.h"
#include "ormel/ormel_cgi_privilege.h"
#include "ormel/ormel_cgi_process.h"
#include "ormel/system_log.h"
#include "ormel/text.h"

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
constexpr size_t COPY_SIZE = size_t{64} * 1024;
constexpr size_t OUTPUT_SIZE = size_t{64} * 1024;   // most answers leave in one write, which wakes the server once
constexpr size_t DISCARD_LIMIT = size_t{4} << 20U;  // twice what the web server lets through
constexpr std::chrono::seconds DISCARD_TIME{2};
constexpr std::string_view POOL_ROUTES = "/ormel/config/";  // what holds this works on the pool

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
    {"/ormel/peer/list", peer::list},
    {"/ormel/peer/add", peer::add},
    {"/ormel/peer/modify", peer::modify},
    {"/ormel/peer/remove", peer::remove},
    {"/ormel/peer/keys", peer::keys},
    {"/ormel/connection/list", connection::list},
    {"/ormel/connection/kick", connection::kick},
    {"/ormel/log/event", log::event},
    {"/ormel/log/client", log::client},
    {"/ormel/log/server", log::server},
    {"/ormel/log/cleanup", log::cleanup},
    {"/ormel/log/dump", log::dump},
    {"/ormel/misc/env", misc::env},
    {"/ormel/misc/nic", misc::nic},
    {"/ormel/misc/dns", misc::dns},
    {"/ormel/misc/gw", misc::gwInfo},
    {"/ormel/misc/member", misc::member},
    {"/ormel/misc/vpn_client_info", misc::vpnClientInfo},
    {"/ormel/misc/interface_rate", misc::interfaceRate},
    {"/ormel/user/query", user::query},
    {"/ormel/privilege/get", privilege::get},
    {"/ormel/privilege/set", privilege::set},
    {"/ormel/privilege/unset", privilege::unset},
    {"/ormel/privilege/block_show", privilege::block_show},
    {"/ormel/privilege/block", privilege::block},
    {"/ormel/privilege/remove_block_user", privilege::remove_block_user},
    {"/ormel/gateway/get", gateway::get},
    {"/ormel/gateway/set", gateway::set},
    {"/ormel/gateway/get_vpn_gw", gateway::get_vpn_gw},
    {"/ormel/pelmar/check_device", pelmar::pelmar_check_device},
    {"/ormel/pelmar/check_virtual_ip", pelmar::pelmar_check_virtual_ip},
    {"/ormel/pelmar/device_register", pelmar::pelmar_device_register},
    {"/ormel/pelmar/device_unregister", pelmar::pelmar_device_unregister},
    {"/ormel/pelmar/get_tamid", pelmar::pelmar_get_tamid},
    {"/ormel/pelmar/get_pelmar_status", pelmar::pelmar_get_pelmar_status},
    {"/ormel/pelmar/join_pelmar_precheck", pelmar::pelmar_join_pelmar_precheck},
    {"/ormel/pelmar/modify_virtual_ip", pelmar::pelmar_modify_virtual_ip},
    {"/ormel/pelmar/organization_list", pelmar::pelmar_organization_list},
    {"/ormel/pelmar/region_list", pelmar::pelmar_region_list},
    {"/ormel/pelmar/feature_tour/show", pelmar::pelmar_feature_tour_show},
    {"/ormel/pelmar/feature_tour/set", pelmar::pelmar_feature_tour_set},
    {"/ormel/pelmar/min_fenro_version", pelmar::pelmar_min_fenro_version},
    {"/ormel/pelmar/min_ormel_version", pelmar::pelmar_min_ormel_version},
    {"/ormel/pelmar/compatible_version", pelmar::pelmar_compatible_version},
    {"/ormel/pelmar/supernode_recent_billing_daily_traffic", pelmar::pelmar_supernode_recent_billing_daily_traffic},
    {"/ormel/pelmar/logs", pelmar::pelmar_logs},
    {"/ormel/oauth_login", pelmar::pelmar_oauth_login},
};
static_assert(std::size(ROUTES) == 57);

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

// Reads on to the end of a body that nobody wanted, or not to its end: a web server that is still writing it would take
// the end of the program for a failure, and not pass the answer on.
void discard_body() {
  if (environment("CONTENT_LENGTH").empty()) return;
  const auto end = std::chrono::steady_clock::now() + DISCARD_TIME;
  std::array<char, COPY_SIZE> piece;
  for (size_t done = 0; done < DISCARD_LIMIT;) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
    pollfd ready{STDIN_FILENO, POLLIN, 0};
    if (left.count() <= 0 || poll(&ready, 1, static_cast<int>(left.count())) <= 0) return;
    const ssize_t count = read(STDIN_FILENO, piece.data(), piece.size());
    if (count <= 0) return;
    done += static_cast<size_t>(count);
  }
}

// Printing is the last thing that a request does. A client that has gone away must not keep it from cleaning up.
void print_head(const std::string& head) {
  static std::array<char, OUTPUT_SIZE> buffer;
  discard_body();
  std::signal(SIGPIPE, SIG_IGN);
  std::setvbuf(stdout, buffer.data(), _IOFBF, buffer.size());
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

cgi_settings settings_for(cgi_var_mode repeats) {
  cgi_settings settings = settings_with_query();
  settings.var_mode = repeats;
  return settings;
}

// False when the client went away.
bool copy_to_output(const File& file) {
  std::array<char, COPY_SIZE> piece;
  size_t length = 0;
  while ((length = std::fread(piece.data(), 1, piece.size(), file.get())) > 0) {
    if (std::fwrite(piece.data(), 1, length, stdout) < length) return false;
  }
  return std::fflush(stdout) == 0;
}

int refuse_download(int code) {
  log_failure(code, reason_of(code));
  print_head("Status: 404 Not Found\r\nContent-Type: text/html\r\n");
  std::fflush(stdout);
  return code;
}

}  // namespace

std::span<const Route> routes() {
  return ROUTES;
}

Request::Request(cgi_var_mode repeats) : CgiRequest(settings_for(repeats)), user_(INVAILD_USER) {
  withhold_request();
  user_ = system::auth_user_session(get_cgi_var_value(find("sid")));
}

int Request::number(const char* name, int fallback) const {
  return filled(name) ? option::to_int(value(name)) : fallback;
}

std::vector<char*> Request::values(const char* name) const {
  std::vector<char*> all;
  for (cgi_var* var = find(name); var; var = get_cgi_var(var, name)) {
    char* const value = get_cgi_var_value(var);
    if (value && get_cgi_var_status(var) == CORRECT_VAR) all.push_back(value);
  }
  return all;
}

int serve(JsonValue& response, Access access, DetailedWork work, cgi_var_mode repeats) {
  const Request request{repeats};
  if (const int rc = check_access(request, access); rc != NO_ERROR) return fail(response, rc);
  const Outcome outcome = work(request, response);
  return outcome.code == NO_ERROR ? succeed(response) : fail(response, outcome);
}

int serve(JsonValue& response, Access access, Work work, cgi_var_mode repeats) {
  const Request request{repeats};
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

int serve_file(JsonValue& response, Access access, FileWork work) {
  const Request request;
  if (const int rc = check_access(request, access); rc != NO_ERROR) return fail(response, rc);
  SentFile file;
  if (const int rc = work(request, file); rc != NO_ERROR) return fail(response, rc);
  struct stat info {};
  if (fstat(fileno(file.content.get()), &info) != 0) return fail(response, ERR_CMD_FAILED);
  print_head(file.head + "Content-Length: " + std::to_string(info.st_size) + "\r\n");
  return copy_to_output(file.content) ? NO_ERROR : ERR_GENERAL;
}

int serve_page(JsonValue& response, Access access, PageWork work) {
  const Request request;
  if (const int rc = check_access(request, access); rc != NO_ERROR) return fail(response, rc);
  Page page;
  work(request, page);
  print_head("Content-Type: text/html\r\n");
  std::fwrite(page.text.data(), 1, page.text.size(), stdout);
  std::fflush(stdout);
  return page.error;
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
