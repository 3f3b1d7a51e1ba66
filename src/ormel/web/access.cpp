#include "ormel/web/access.h"

#include <algorithm>
#include <arpa/inet.h>
#include <ctime>
#include <netinet/in.h>
#include <string_view>

#include <fenro/auth.h>

#include "base/second_factor.h"
#include "base/utf8.h"
#include "ormel/actions/audit.h"
#include "ormel/base/text.h"
#include "ormel/host/event_log.h"
#include "ormel/web/process.h"

namespace ormel::cgi {

namespace {

using ormel::token::Scope;

constexpr int WARNING = 1;  // of an event

// No token may make tokens, act as a person, or copy all secrets. Paths, or their beginnings.
constexpr std::string_view FOR_PEOPLE[] = {"/ormel/token/", "/ormel/my/", "/ormel/backup/",
                                           "/ormel/log/dump", "/ormel/oauth_login"};
// Reading routes with an effect elsewhere: the far end of a tunnel counts a login, and the cloud
// makes an organization for an account without one.
constexpr std::string_view CHANGES_ELSEWHERE[] = {"/ormel/doctor/start",
                                                  "/ormel/pelmar/organization_list"};
constexpr std::string_view FIGURES = "/ormel/metrics";
// The routes open to a user who must first set up a second factor.
constexpr std::string_view SET_UP = "/ormel/my/totp_";
constexpr const char* SET_UP_FIRST = "a second factor is required: log in again and set it up";
// Members of answers. The address of a webhook often holds a token.
constexpr std::string_view SECRETS[] = {
    "pass", "psk", "secret", "pri_key", "server_pri_key", "client_pri_key", "url"};

bool is_for_people(std::string_view path) {
  return std::ranges::any_of(FOR_PEOPLE,
                             [path](std::string_view start) { return path.starts_with(start); });
}

Outcome check_token(const Route& route, const ormel::token::Holder& holder) {
  if (holder.name.empty()) return {ERR_SESSION_FAIL, holder.refusal};
  const std::optional<Scope> least = least_scope(route);
  if (!least) return {ERR_NOT_ADMIN_SESSION, "no token may use this route: log in"};
  if (holder.scope >= *least) return {};
  return {ERR_NOT_ADMIN_SESSION, std::string("the token has the scope ") + name_of(holder.scope) +
                                     ", and this needs the scope " + name_of(*least)};
}

bool must_set_up_first(const Route& route, const Request& request) {
  const fenro::SecondFactors factors;
  return factors.exist() && !request.is_local() && !route.path.starts_with(SET_UP) &&
         factors.of(request.name()).is_missing();
}

void blank(json_t* value) {
  const char* name = nullptr;
  json_t* member = nullptr;
  size_t at = 0;
  json_array_foreach(value, at, member) blank(member);
  json_object_foreach(value, name, member) {
    const bool secret = std::ranges::find(SECRETS, name) != std::end(SECRETS);
    if (secret && json_is_string(member))
      json_string_set(member, "");
    else
      blank(member);
  }
}

// A token that its maker's leaving has ended: once, not for each request that is still sent with
// it.
void report_orphan(const ormel::token::Holder& holder, const std::string& address) {
  const std::string maker = fenro::valid_utf8(holder.maker);
  system::add_log("[ORMEL Service] The token " + holder.orphan + " is refused: " + maker +
                      ", who has made it, is no administrator any more, or locked.",
                  WARNING);
  ormel::audit::note({"token:" + holder.orphan, "web", address}, "token/refused", holder.orphan,
                     {{"administrator " + maker, "yes", "no"}}, ERR_SESSION_FAIL);
}

}  // namespace

std::string client_address() {
  const std::string address = environment("REMOTE_ADDR");
  in6_addr any{};
  const bool valid = inet_pton(AF_INET, address.c_str(), &any) == 1 ||
                     inet_pton(AF_INET6, address.c_str(), &any) == 1;
  return valid ? address : std::string();
}

ormel::token::Holder holder_of(const std::string& authorization) {
  const std::string address = client_address();
  ormel::token::Holder holder = ormel::token::check(authorization, address, std::time(nullptr));
  if (holder.closes)
    system::add_log("[ORMEL Service] Too many wrong tokens from " +
                        (address.empty() ? "an unknown address" : address) +
                        ": no token is taken from there for 15 minutes.",
                    WARNING);
  if (!holder.orphan.empty()) report_orphan(holder, address);
  return holder;
}

Sender sender_of(const Request& request) {
  if (request.token()) return {request.token()->name, client_address()};
  _session session{};
  const bool known =
      request.filled("sid") && auth_get_session(request.value("sid"), 1, &session) == 0;
  if (!known) return {"", client_address()};
  const std::string address = field_text(session.ip);
  return {field_text(session.user), address.empty() ? client_address() : address};
}

Outcome check_access(const Route& route, const Request& request) {
  if (request.token()) return check_token(route, *request.token());
  if (request.user() == INVAILD_USER) return {ERR_SESSION_FAIL};
  if (request.user() < route.access.least) return {route.access.refusal};
  if (must_set_up_first(route, request)) return {ERR_ACCESS, SET_UP_FIRST};
  return {};
}

std::optional<Scope> least_scope(const Route& route) {
  if (is_for_people(route.path)) return {};
  if (route.path == FIGURES) return Scope::Metrics;
  const bool elsewhere =
      std::ranges::find(CHANGES_ELSEWHERE, route.path) != std::end(CHANGES_ELSEWHERE);
  return route.effect == READS && !elsewhere ? Scope::Read : Scope::Admin;
}

std::string without_secrets(const std::string& answer) {
  const std::string valid = fenro::valid_utf8(answer);
  const Json document{json_loadb(valid.data(), valid.size(), JSON_ALLOW_NUL, nullptr)};
  blank(document.get());
  const CString text{document ? json_dumps(document.get(), JSON_COMPACT) : nullptr};
  return text ? text.get()
              : R"({"error":1,"reason":"the answer cannot be sent without its secrets"})";
}

}  // namespace ormel::cgi
