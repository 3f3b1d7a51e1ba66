// The name or address at which others reach this host, over the web.
#include <string>

#include "ormel/host/public_address.h"
#include "ormel/web/routes.h"

namespace ormel::cgi::address {

namespace {

int show(const Request&, JsonValue& reply) {
  const std::string address = system::public_address();
  const bool at_home = !address.empty() && system::works_at_home_only(address);
  reply["data"] = json_pack("{s:s, s:b}", "address", address.c_str(), "home_only", at_home ? 1 : 0);
  return NO_ERROR;
}

// An empty address removes the stored one.
Outcome store(const Request& request, JsonValue& reply) {
  if (!request.has("address")) return {ERR_MISS_OPTION};
  switch (const int rc = system::store_public_address(request.value("address"))) {
    case NO_ERROR: return {show(request, reply)};
    case ERR_VALUE: return {rc, "address: a host name or an IP address, without a port"};
    default: return {rc, "public_address cannot be written: check the space on /etc/config"};
  }
}

constexpr Route ROWS[] = {
    {"/ormel/address/get", ADMINISTRATOR, READS, json<show>},
    {"/ormel/address/set", ADMINISTRATOR, CHANGES, json<store>},
};

}  // namespace

const Routes ADDRESS{ROWS};

}  // namespace ormel::cgi::address
