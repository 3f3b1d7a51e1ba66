// The peers of the WireGuard server over the web.
//
// A change goes to the running interface first and then to the peer file; while the server is off, to the file alone.
// Variables are those of the command line's options: `peer_name` (URL-encoded), `peer_pub_key`, `peer_allow_ip`
// ("ADDRESS/32"), `peer_endpoint`, `keepalive` and `psk`, and `index` where a peer is named. The server's own settings
// in such a form are ignored. `list`, `add`, `modify` and `remove` answer with the peers as they are then, in the form
// of the server's record; `keys` with a new key pair, `pri_key` and `pub_key`, of which nothing is kept here.
#pragma once

#include "ormel/json.h"

namespace ormel::cgi::peer {

// Each answers one request; the code of the reply.
int list(JsonValue& response);
// Needs the name, the key and the address.
int add(JsonValue& response);
// What the form leaves out stays as it is.
int modify(JsonValue& response);
int remove(JsonValue& response);
int keys(JsonValue& response);

}  // namespace ormel::cgi::peer
