// Names of settings whose values are never shown: the log archive blanks them, and the audit trail
// and dry runs only say that they have changed.
#pragma once

#include <algorithm>
#include <string>
#include <string_view>

namespace fenro {

struct SecretName {
  std::string_view word;  // in a name without blanks and underscores, in lower case
  const char* pattern;  // the same in the lines of a log for awk; null where it would hide too much
};

inline constexpr SecretName SECRET_NAMES[] = {
    {"pass", "pass"},
    {"secret", "secret"},
    {"psk", "psk"},
    {"token", "token"},
    {"credential", "credential"},
    {"accesscode", "access[ _]?code"},
    {"key", "key"},
    {"authorization", "authorization"},
    {"bearer", "bearer"},
    {"cookie", "cookie"},
    {"sid", "(^|[^a-z])sid"},
    {"cert", nullptr},
    {"url", nullptr},  // addresses of webhooks often hold a token
};

// Whether a setting of this name may hold a secret. In doubt it may.
[[nodiscard]] inline bool is_secret_name(std::string_view name) {
  std::string plain;
  for (const char c : name) {
    if (c != ' ' && c != '_') plain += static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
  }
  return std::ranges::any_of(SECRET_NAMES, [&](const SecretName& row) {
    return plain.find(row.word) != std::string::npos;
  });
}

}  // namespace fenro
