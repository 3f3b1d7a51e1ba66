// The conversation with pppd's plugin: one login as lines of "Name: value" or, in base64, "Name::
// value", ended by a line ".", and the verdict in the same form.
#pragma once

#include <string>
#include <string_view>

namespace fenro::mschap {

// The user that the request in `lines` is about; empty for a malformed request.
[[nodiscard]] std::string user_of(std::string_view lines);

// Whether an answer admits the user.
[[nodiscard]] bool admits(std::string_view answer);

// A refusal.
extern const char* const REFUSED;

// The answer to the request in `lines`. A login is refused unless all of it is right.
[[nodiscard]] std::string judge(std::string_view lines, const char* secrets_path,
                                std::string_view server);

}  // namespace fenro::mschap
