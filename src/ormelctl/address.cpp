// The public address of this host.
#include "ormel/base/error.h"
#include "ormel/host/public_address.h"
#include "ormelctl/command.h"
#include "ormelctl/service.h"

namespace ormelctl {
namespace {

constexpr const char* AT_HOME = " works only inside your own network";

// The answer of a route with the address, in words.
Result shown(const Reply& reply) {
  const std::string address = text_of(reply.data(), "address");
  const bool at_home = json_is_true(json_object_get(reply.data(), "home_only"));
  return done(address.empty() ? "No public address is set: ormelctl address set vpn.example.org"
                              : address + (at_home ? AT_HOME : ""),
              ormel::Json{json_incref(reply.data())}, {{"address", "ADDRESS"}});
}

}  // namespace

Result address_show(const Arguments&) {
  const Reply reply = call("/ormel/address/get");
  return reply.error != 0 ? failed(reply.error, reply.reason) : shown(reply);
}

Result address_set(const Arguments& arguments) {
  const std::string& address = arguments.words[0];
  if (!ormel::system::is_host(address))
    return failed(Exit::Usage, address + " is not a host name or an address without a port");
  const Reply reply = call("/ormel/address/set", {{"address", address}});
  return reply.error != 0 ? failed(reply.error, reply.reason) : shown(reply);
}

Result address_remove(const Arguments&) {
  const Reply reply = call("/ormel/address/set", {{"address", ""}});
  return reply.error != 0 ? failed(reply.error, reply.reason)
                          : done("the public address is forgotten");
}

}  // namespace ormelctl
