// Who may use the servers, the policy on failed logins, and the users to choose from, over the web.
//
// The policy is /etc/config/vpn_block.conf, which the daemon behind "vpncaas" reads and replaces for us:
//   {"global": {"enable": true, "limit": 5, "time": 30}}
// `limit` failed logins block a user for `time` minutes. The log database counts them, and it alone decides whether a
// login is tried at all; a key that is missing has the value above.
#pragma once

#include "ormel/json.h"

namespace ormel::cgi {

// Each answers one request; the code of the reply.

namespace privilege {

int get(JsonValue& response);
int set(JsonValue& response);
int unset(JsonValue& response);
int block_show(JsonValue& response);
int block(JsonValue& response);
int remove_block_user(JsonValue& response);

}  // namespace privilege

namespace user {

int query(JsonValue& response);

}  // namespace user

}  // namespace ormel::cgi
