// Certificates, digests and base64: thin wrappers over OpenSSL and, for what every run needs, Nettle.
#pragma once

#include <string>

namespace ormel::openssl {

// The text is a PEM certificate revocation list.
[[nodiscard]] bool is_crl(const std::string& pem);
// The text is a PEM certificate with a public key.
[[nodiscard]] bool is_cert(const std::string& pem);

// Version of the installed OpenSSL as major * 10000000 + minor * 10000 + patch * 1000, -1 if it cannot be told.
[[nodiscard]] int version_num();

// SHA-1 as 40 lower-case hexadecimal characters.
[[nodiscard]] std::string sha1(const std::string& text);

// Standard base64 without line breaks. Bad input decodes to an empty or short text.
[[nodiscard]] std::string base64_encode(const std::string& text);
[[nodiscard]] std::string base64_decode(const std::string& text);

}  // namespace ormel::openssl
