// The two tokens of the user's account that the daemon stores, in files readable by root only.
#pragma once

#include <string>
#include <string_view>

#include "common/cloud_client.h"

namespace fenro::pelmar {

// Stores the login of the user's cloud account.
//
// The login page returns the account's answer in base64, in either alphabet:
//   {"access_token": TEXT, "refresh_token": TEXT, "expires_in": SECONDS}
// of which the last two may be missing. On anything else it returns false and keeps the previous
// login.
[[nodiscard]] bool save_cloud_token(std::string_view encoded);

// Returns the token of that login, renewed at the login service once it has expired; empty
// without a valid login.
[[nodiscard]] std::string cloud_token(const CloudClient& cloud);

// Returns an organisation's token for the Pelmar API; empty when the cloud gives none.
//
// The token of the joined organisation is stored and used until it expires. The settings key
// PELMAR_TOKEN_LAST_SEEN holds the time it was received, in seconds since 1970; writing "0" there
// forces a new token. Before an organisation has been joined, each call fetches a new token and
// leaves the key unchanged.
[[nodiscard]] std::string pelmar_token(const CloudClient& cloud, const std::string& organization);

}  // namespace fenro::pelmar
