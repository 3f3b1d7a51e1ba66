// Who sends a request, and what that lets it do: a session, a token, or a program of this host.
#pragma once

#include <optional>
#include <string>

#include "ormel/web/serve.h"

namespace ormel::cgi {

// Who has sent a request: the user of its session, or "token:NAME". Empty for neither.
struct Sender {
  std::string user{}, ip{};
};
[[nodiscard]] Sender sender_of(const Request& request);

// The client's address as the web server reports it; empty when malformed.
[[nodiscard]] std::string client_address();

// Checks a token. Logs an event when too many wrong ones close the address.
[[nodiscard]] ormel::token::Holder holder_of(const std::string& authorization);

// Whether a request may use a route: 0, or why not.
[[nodiscard]] Outcome check_access(const Route& route, const Request& request);

// The least scope of a token that may use a route; nothing where no token may.
[[nodiscard]] std::optional<ormel::token::Scope> least_scope(const Route& route);

// The text of an answer without the secrets in it, for a token that may change nothing.
[[nodiscard]] std::string without_secrets(const std::string& answer);

}  // namespace ormel::cgi
