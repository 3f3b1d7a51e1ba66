// Checks of a login, for programs of the platform that need to know more of it than
// Check_NAS_User_Password says.
#pragma once

#include <string>

namespace fenro {

// What a login opens. One at the web interface is also how a user sets up the second factor that an
// administrator requires.
enum class LoginKind { Server, Web };

// What a user has typed as the password, followed by the code of the second factor if the user has
// one. Returns 0, -1 for a wrong password, or the number of a FactorRefusal. After 0 `own` is the
// password without the code, unless it is null.
[[nodiscard]] int check_login(const char* user, const char* typed, LoginKind kind,
                              std::string* own);

// Whether this is the user's password. Ignores the second factor: for root, not for logins.
[[nodiscard]] bool is_password_of(const char* user, const char* password);

}  // namespace fenro
