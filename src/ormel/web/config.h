// The plain profile operations of the web API.
#pragma once

#include <memory>
#include <string>

#include "base/types.h"
#include "ormel/config/record.h"
#include "ormel/web/serve.h"

namespace ormel::cgi::config {

// The type that a number or a name in any case means, NONE_TYPE if neither fits.
[[nodiscard]] TYPE convert_type(const char* value);
// A new record of that type with index 0, null for NONE_TYPE.
[[nodiscard]] std::unique_ptr<ormel::config::BaseConfig> create_config(const char* value);

// The record that an import of the upload `ovpn` fills, with the form's options applied. Sets rc to
// 0, or to the first refusal.
[[nodiscard]] std::unique_ptr<ormel::config::PolyConfig> import_record(const Request& request,
                                                                       int& rc);

// Fills the file with the profile of the OpenVPN server. A host that is not empty is in there as
// the server's, in the place of the appliance's own address.
[[nodiscard]] int make_profile(Download& file, const std::string& host);

}  // namespace ormel::cgi::config
