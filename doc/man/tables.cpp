// Error codes, routes and notifications.
#include "ormel/base/error.h"
#include "ormel/host/notification.h"
#include "ormel/web/routes.h"
#include "page.h"
#include "route_text.h"

namespace manual {

namespace {

constexpr unsigned int HIGHEST_STATUS = 255;  // a code above would be cut in an exit status
constexpr unsigned int NO_CODE = 1'000'000;

// "/ormel/config/" of "/ormel/config/add".
std::string family_of(const std::string& route) {
  return route.substr(0, route.rfind('/') + 1);
}

std::string who_may_use(const ormel::cgi::Access& access) {
  if (access.least == ormel::GENERAL_USER) return "any session";
  if (access.refusal == ormel::ERR_SESSION_FAIL) return "administrators";
  return "administrators, others get error " + std::to_string(access.refusal);
}

std::string effect_of(const ormel::cgi::Route& route) {
  return route.effect == ormel::cgi::CHANGES ? ", changes" : "";
}

}  // namespace

void put_errors(Page& page, const Words&) {
  const std::string unknown = ormel::get_error_message(NO_CODE);
  page.out() << "[[ *Code*\n:[ *Text*\n:< *When*\n";
  for (unsigned int code = 1; code <= HIGHEST_STATUS; ++code) {
    const std::string text = ormel::get_error_message(code);
    if (text == unknown) continue;  // not assigned
    const Entry& entry = page.texts("errors").of(std::to_string(code));
    page.out() << "|  " << code << "\n:  " << literal(text) << "\n:  " << joined(entry.lines)
               << '\n';
  }
}

void put_routes(Page& page, const Words&) {
  std::string family;
  for (const ormel::cgi::Route& route : ormel::cgi::routes()) {
    const std::string path(route.path);
    if (family_of(path) != family) {
      family = family_of(path);
      page.out() << "## " << literal(family) << "\n\n";
    }
    const Entry& entry = page.texts("routes").of(path);
    put_entry(page,
              '*' + literal(path) + "* (" + who_may_use(route.access) + ')' + effect_of(route),
              route_text(entry).lines);
  }
}

void put_notifications(Page& page, const Words&) {
  for (const ormel::nc_msg_struct& message : ormel::nc_messages()) {
    const std::string key = std::string(message.category_id) + ' ' + message.message_id;
    put_entry(page, '*' + key + "* (" + message.level + ") " + literal(message.message),
              page.texts("notifications").of(key).lines);
  }
}

}  // namespace manual
