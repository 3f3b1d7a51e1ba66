#include "ormel/web/config.h"

#include "ormel/actions/actions.h"
#include "ormel/base/text.h"
#include "ormel/config/pool.h"
#include "ormel/options/table.h"
#include "ormel/web/routes.h"

namespace ormel::cgi::config {

using ormel::config::cm;
using ormel::config::PolyConfig;

namespace {

using Action = int (*)(std::unique_ptr<PolyConfig> record, JsonValue* out);

// The work record of a request: of the type that it names and with an action. 0, ERR_NO_TYPE or
// ERR_WRONG_TYPE.
int begin(const Request& request, ACTION action, std::unique_ptr<PolyConfig>& record) {
  if (!request.filled("type")) return ERR_NO_TYPE;
  record = std::make_unique<PolyConfig>(create_config(request.value("type")));
  if (!record->bc) return ERR_WRONG_TYPE;
  (*record)->action = action;
  return NO_ERROR;
}

// Applies the form to the work record and hands it to the action.
int perform(const Request& request, std::unique_ptr<PolyConfig> record, Action action,
            JsonValue* out) {
  int rc = NO_ERROR;
  record = option::get_options(std::move(record), request.vars(), rc);
  return rc == NO_ERROR ? action(std::move(record), out) : rc;
}

// An action on the stored profile that the request names by type and index.
int perform_indexed(const Request& request, ACTION kind, Action action, JsonValue* out) {
  std::unique_ptr<PolyConfig> record;
  if (const int rc = begin(request, kind, record); rc != NO_ERROR) return rc;
  if (!request.has("index")) return ERR_MISS_OPTION;
  (*record)->index = to_int(request.value("index"));
  return perform(request, std::move(record), action, out);
}

int add_profile(const Request& request, JsonValue& reply) {
  // Before the type is looked at: full client profiles refuse everything.
  if (cm.is_full()) return ERR_CONFIGURATION_FULL;
  std::unique_ptr<PolyConfig> record;
  if (const int rc = begin(request, ADD_ACTION, record); rc != NO_ERROR) return rc;
  return perform(request, std::move(record), ormel::add, &reply["data"]);
}

int show_profiles(const Request& request, JsonValue& reply) {
  if (!request.filled("type")) return ERR_NO_TYPE;
  const auto mask = static_cast<TYPE>(to_int(request.value("type")));
  cm.show(mask, request.user(), &reply["data"]);
  return NO_ERROR;
}

int remove_profile(const Request& request, JsonValue&) {
  return perform_indexed(request, REMOVE_ACTION, ormel::remove, nullptr);
}

int connect_profile(const Request& request, JsonValue& reply) {
  return perform_indexed(request, CONNECT_ACTION, ormel::connect, &reply["data"]);
}

int disconnect_profile(const Request& request, JsonValue& reply) {
  return perform_indexed(request, DISCONNECT_ACTION, ormel::disconnect, &reply["data"]);
}

constexpr Route ROWS[] = {
    {"/ormel/config/add", ADMINISTRATOR, CHANGES, json<add_profile>},
    {"/ormel/config/show", ANY_SESSION, READS, json<show_profiles>},
    {"/ormel/config/remove", ADMINISTRATOR, CHANGES, json<remove_profile>},
    {"/ormel/config/connect", ADMINISTRATOR, CHANGES, json<connect_profile>},
    {"/ormel/config/disconnect", ADMINISTRATOR, CHANGES, json<disconnect_profile>},
};

}  // namespace

TYPE convert_type(const char* value) {
  return option::parse_type(value);
}

std::unique_ptr<ormel::config::BaseConfig> create_config(const char* value) {
  return ormel::config::make_record(convert_type(value), 0);
}

std::unique_ptr<PolyConfig> import_record(const Request& request, int& rc) {
  auto record = std::make_unique<PolyConfig>(create_config("OVPN"));
  rc = ERR_WRONG_TYPE;
  if (!record->bc) return record;
  (*record)->action = IMPORT_ACTION;
  record = option::get_options(std::move(record), request.vars(), rc);
  // What has been checked, whatever the form's options name.
  if (rc == NO_ERROR) (*record)->file = request.value("ovpn");
  return record;
}

const Routes PROFILES{ROWS};

}  // namespace ormel::cgi::config
