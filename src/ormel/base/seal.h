// Texts sealed by a passphrase: AES-256-GCM under a key that scrypt makes of it.
//
// A sealed text is the header of 48 bytes, as many encrypted bytes as it says, and a tag of 16.
// The header, whose every bit the tag covers, is
//   8 bytes  "ORMELBAK"
//   1        format, 1
//   3        the costs of scrypt: binary logarithm of N, r, p
//   16       salt
//   12       nonce
//   8        length of the encrypted bytes, most significant byte first
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace ormel::openssl {

inline constexpr std::size_t LEAST_PASSPHRASE = 8;  // bytes
inline constexpr std::size_t MOST_PASSPHRASE = 1024;
inline constexpr std::size_t MOST_SEALED = std::size_t{64} << 20U;  // bytes of a text

enum class Sealing {
  Done,
  NoLibrary,        // libcrypto is missing, or has no scrypt or no memory for it
  NotSealed,        // no sealed text, or one that is cut or has something after its end
  NewerFormat,      // made by a later version of this program
  Unusual,          // costs that nothing here would choose, and that could occupy the host
  WrongPassphrase,  // or a byte was changed: the tag does not tell which
};

// Encrypts `text` into `out`, each time under a new salt and nonce.
[[nodiscard]] Sealing seal(const std::string& text, const std::string& passphrase,
                           std::string& out);
// Decrypts into `text`, which is empty after a failure.
[[nodiscard]] Sealing unseal(std::string_view sealed, const std::string& passphrase,
                             std::string& text);

}  // namespace ormel::openssl
