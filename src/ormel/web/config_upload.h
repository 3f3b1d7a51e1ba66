// Whether an uploaded OpenVPN profile and the files that came with it belong together.
#pragma once

#include <string>

#include <jansson.h>

#include "ormel/cgi/cgi.h"

namespace ormel {

// Whether the files that came with an uploaded profile are those that it refers to. `arguments`
// takes the files that it finds, as the checker of profiles wants them, and `wrong` is set when
// some do not fit. 0, ERR_FILE_DESCRIPTOR_ERROR or ERR_REGEX_FAIL.
//
// Clients rely on the two lists being named the other way round: "missing" are files that came and
// that the profile does not refer to, "excessive" are those that it refers to and that did not
// come.
[[nodiscard]] int ca_files_check(cgi_var* ovpn, cgi_var* request, json_t* missing,
                                 json_t* excessive, std::string& arguments, bool* wrong);

}  // namespace ormel
