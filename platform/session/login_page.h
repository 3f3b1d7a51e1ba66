// The page that asks for user and password: no script, no style, nothing from elsewhere, as its
// policy demands.
#pragma once

namespace fenro {

constexpr const char* PAGE_POLICY =
    "default-src 'none'; base-uri 'none'; form-action 'self'; frame-ancestors 'none'";

constexpr const char* LOGIN_PAGE = R"(<!DOCTYPE html>
<html lang="en">
<head>
<meta charset="utf-8">
<meta name="viewport" content="width=device-width">
<title>Log in</title>
</head>
<body>
<h1>Log in</h1>
<form method="post">
<p><label>User <input name="user" autocomplete="username" maxlength="56" required autofocus></label></p>
<p><label>Password <input name="password" type="password" autocomplete="current-password" required></label></p>
<p><label>Second factor code, if you have one <input name="code" autocomplete="one-time-code" maxlength="20"></label></p>
<p><button>Log in</button></p>
</form>
</body>
</html>
)";

}  // namespace fenro
