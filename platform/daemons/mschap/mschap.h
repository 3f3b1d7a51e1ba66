// The arithmetic of an MS-CHAP login. Of version 2 the PPP daemon has made the challenge an 8-byte one already.
#pragma once

#include "daemons/mschap/hex.h"

namespace fenro::mschap {

using NtHash = Block<16>;
using Challenge = Block<8>;
using Response = Block<24>;

// The hash of a password in UTF-8; false for a password that is not.
[[nodiscard]] bool nt_hash(std::string_view password, NtHash& out);

// What a client that knows the password answers. False if libcrypto refuses.
[[nodiscard]] bool expected_response(const NtHash& hash, const Challenge& challenge, Response& out);

// The key from which the link's encryption is derived.
[[nodiscard]] Block<16> session_key(const NtHash& hash);

}  // namespace fenro::mschap
