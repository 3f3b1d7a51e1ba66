// The table of password hashes, /etc/config/smbpasswd, against which MS-CHAP logins are checked.
// The host keeps no hash of that kind, so one is stored whenever a password is set or has been
// proved.
#pragma once

#include <string>
#include <string_view>

namespace fenro::mschap {

inline constexpr const char* PASSWORD_TABLE = "/etc/config/smbpasswd";

// Returns the text of the table with the user's line replaced or added:
// NAME:UID:LM-HASH:NT-HASH:[FLAGS]:LCT-TIME: with the time of the last change in hexadecimal
// seconds. Empty for a name that cannot be in a line, or a password that is not UTF-8.
[[nodiscard]] std::string with_password(std::string_view table, std::string_view user, unsigned uid,
                                        std::string_view password, long now);

// Stores the hash of a user's password, unless the table has it. Returns false when it cannot.
[[nodiscard]] bool store_password(const std::string& user, std::string_view password,
                                  const char* path = PASSWORD_TABLE);

}  // namespace fenro::mschap
