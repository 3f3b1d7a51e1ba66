// Who may log in to a PPP server, and with which password hash.
//
// chap-secrets: a line of client, server, secret and address for each user. The client is between
// double quotes, unescaped whatever it holds, so a line is compared with the user at hand and never
// taken apart. The secret is a password, or "&" and the path of a password table.
//
// Password table: NAME:UID:LM-HASH:NT-HASH:[FLAGS]:... a line, hashes in hexadecimal. "D" among the
// flags is an account that is switched off.
#pragma once

#include <string>
#include <string_view>

#include "daemons/mschap/mschap.h"

namespace fenro::mschap {

// The secret of `user` for `server` in the text of a secrets file. False if there is none.
[[nodiscard]] bool find_secret(std::string_view secrets, std::string_view user,
                               std::string_view server, std::string& secret);

// The hash of `user` in the text of a password table. False for unknown, disabled and passwordless
// accounts.
[[nodiscard]] bool find_hash(std::string_view table, std::string_view user, NtHash& out);

// Both together, from the secrets file at `path`.
[[nodiscard]] bool account_hash(const char* path, std::string_view user, std::string_view server,
                                NtHash& out);

}  // namespace fenro::mschap
