// Certificates, digests and base64: thin wrappers over OpenSSL and, for what every run needs,
// Nettle.
#pragma once

#include <ctime>
#include <string>
#include <vector>

namespace ormel::openssl {

// Returns whether the text is a PEM certificate revocation list.
[[nodiscard]] bool is_crl(const std::string& pem);
// Returns whether the text is a PEM certificate with a public key.
[[nodiscard]] bool is_cert(const std::string& pem);

struct CertificateFacts {
  std::string subject{};       // its common name, or its organisation: one line of UTF-8
  long days = 0;               // whole days until its end; negative after it
  std::time_t not_before = 0;  // seconds since 1970
  std::time_t not_after = 0;
};
// Returns the facts of all PEM certificates in a text, up to the first malformed one.
[[nodiscard]] std::vector<CertificateFacts> certificates_of(const std::string& pem);
// Returns the same for lists of revoked certificates: the name of the issuer, the time of the list
// and that of the next one, which is 0 where the list does not say.
[[nodiscard]] std::vector<CertificateFacts> revocation_lists_of(const std::string& pem);
// Returns the whole days from now until `end`; negative after it.
[[nodiscard]] long days_until(std::time_t end);

// SHA-1 as 40 lower-case hexadecimal characters, SHA-256 as 64.
[[nodiscard]] std::string sha1(const std::string& text);
[[nodiscard]] std::string sha256(const std::string& text);

// Standard base64 without line breaks. Bad input decodes to an empty or short text.
[[nodiscard]] std::string base64_encode(const std::string& text);
[[nodiscard]] std::string base64_decode(const std::string& text);

}  // namespace ormel::openssl
