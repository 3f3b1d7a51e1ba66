// The two tokens of the user's account that the daemon keeps, in files for root alone.
#pragma once

#include <string>
#include <string_view>

#include "common/cloud_client.h"

namespace fenro::pelmar {

// Keeps the login of the user's cloud account.
//
// The login page comes back with the account's answer in base64, of either alphabet:
//   {"access_token": TEXT, "refresh_token": TEXT, "expires_in": SECONDS}
// of which the last two may be missing. False, and the login of before stays, for anything else.
[[nodiscard]] bool save_cloud_token(std::string_view encoded);

// The token of that login, asked for anew at the login service once it has run out. Empty without a login that is
// still good.
[[nodiscard]] std::string cloud_token(const CloudClient& cloud);

// A token of an organisation at the Pelmar API; empty when the cloud gives none.
//
// That of the organisation which the appliance has joined is kept, and used for as long as the cloud has said. The key
// PELMAR_TOKEN_LAST_SEEN of the settings tells when it came, in seconds since 1970: whoever writes "0" there has the
// next one asked for. While an organisation is still being chosen each question gets a token of its own, and the key
// stays as it is.
[[nodiscard]] std::string pelmar_token(const CloudClient& cloud, const std::string& organization);

}  // namespace fenro::pelmar
