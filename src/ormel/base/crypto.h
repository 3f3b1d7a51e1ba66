// Certificates, digests and base64: thin wrappers over OpenSSL and, for what every run needs,
// Nettle.
#pragma once

#include <string>
#include <vector>

namespace ormel::openssl {

// Returns whether the text is a PEM certificate revocation list.
[[nodiscard]] bool is_crl(const std::string& pem);
// Returns whether the text is a PEM certificate with a public key.
[[nodiscard]] bool is_cert(const std::string& pem);

struct CertificateFacts {
  std::string subject{};  // its common name, or its organisation
  long days = 0;          // whole days until its end; negative after it
};
// Returns the facts of all PEM certificates in a text, up to the first malformed one.
[[nodiscard]] std::vector<CertificateFacts> certificates_of(const std::string& pem);

// SHA-1 as 40 lower-case hexadecimal characters.
[[nodiscard]] std::string sha1(const std::string& text);
// SHA-256 as 64 lower-case hexadecimal characters.
[[nodiscard]] std::string sha256(const std::string& text);

// Standard base64 without line breaks. Bad input decodes to an empty or short text.
[[nodiscard]] std::string base64_encode(const std::string& text);
[[nodiscard]] std::string base64_decode(const std::string& text);

}  // namespace ormel::openssl
