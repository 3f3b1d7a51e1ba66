// The server list of a VPN provider for the web interface.
#include "ormel/actions/provider.h"

#include "ormel/base/handle.h"
#include "ormel/base/log.h"
#include "ormel/base/text.h"
#include "ormel/config/pool.h"
#include "ormel/web/config.h"
#include "ormel/web/handlers.h"
#include "ormel/web/serve.h"

namespace ormel::cgi::provider {

namespace {

struct Account {
  std::string username{};
  std::string password{};
};

// Of the client profile that the request names. 0, ERR_WRONG_TYPE or ERR_CONFIGURE_INDEX.
int stored_account(const Request& request, Account& account) {
  const TYPE type = config::convert_type(request.value("type"));
  if (type < PPTP_CLIENT_TYPE || type > OVPN_CLIENT_TYPE) return ERR_WRONG_TYPE;
  if (!request.filled("index")) return ERR_CONFIGURE_INDEX;
  std::ignore = ormel::config::cm.load();  // always 0
  const ormel::config::PolyConfig* stored =
      ormel::config::cm.fetch(type, to_int(request.value("index")));
  const auto* profile = stored ? stored->cast<ormel::config::ClientConfig>() : nullptr;
  if (!profile) return ERR_CONFIGURE_INDEX;
  account = {profile->user, profile->pass};
  return NO_ERROR;
}

// Of the request itself, where it names no profile. 0, or what is wrong.
int find_account(const Request& request, Account& account) {
  if (request.filled("type")) return stored_account(request, account);
  if (!request.filled("username") || !request.filled("password")) return ERR_MISS_OPTION;
  account = {request.value("username"), request.value("password")};
  return NO_ERROR;
}

int list_servers(const Request& request, JsonValue& reply) {
  Account account;
  if (const int rc = find_account(request, account); rc != NO_ERROR) return rc;
  Json servers{ormel::provider::goldenfrog_server_list(account.username, account.password)};
  if (!servers || json_is_integer(servers.get())) {
    ORMEL_LOG(ERROR, "no server list, status %lld",
              static_cast<long long>(json_integer_value(servers.get())));
    return ERR_ACCESS;
  }
  reply["data"] = servers.release();
  return NO_ERROR;
}

}  // namespace

int goldenfrog(JsonValue& response) {
  return serve({"", ADMINISTRATOR, READS, json<list_servers>}, response);
}

}  // namespace ormel::cgi::provider
