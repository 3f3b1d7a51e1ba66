// The routes that change a stored profile, judge and import a foreign one, and hand out what a client of the OpenVPN
// server needs.
#pragma once

#include <string>

#include <jansson.h>

#include "ormel/cgi/cgi.h"
#include "ormel/json.h"

namespace ormel::cgi::config {

// Each answers one request; the code of the reply.
int modify(JsonValue& response);
int check(JsonValue& response);
int import(JsonValue& response);
// These send a file in place of the reply.
int download(JsonValue& response);
int downloadcert(JsonValue& response);

}  // namespace ormel::cgi::config

namespace ormel {

// Whether the files that came with an uploaded profile are those that it refers to. `arguments` takes the files that it
// finds, as the checker of profiles wants them, and `wrong` is set when some do not fit. 0, ERR_FILE_DESCRIPTOR_ERROR
// or ERR_REGEX_FAIL.
//
// Clients rely on the two lists being named the other way round: "missing" are files that came and that the profile
// does not refer to, "excessive" are those that it refers to and that did not come.
[[nodiscard]] int ca_files_check(cgi_var* ovpn, cgi_var* request, json_t* missing, json_t* excessive,
                                 std::string& arguments, bool* wrong);

}  // namespace ormel
