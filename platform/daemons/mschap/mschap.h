// The arithmetic of an MS-CHAP login. Of version 2 the PPP daemon has made the challenge an 8-byte
// one already.
#pragma once

#include "daemons/mschap/hex.h"
#include "daemons/mschap/nt_hash.h"

namespace fenro::mschap {

using Challenge = Block<8>;
using Response = Block<24>;

// Computes the answer of a client that knows the password.
void expected_response(const NtHash& hash, const Challenge& challenge, Response& out);

// The key from which the link's encryption is derived.
[[nodiscard]] Block<16> session_key(const NtHash& hash);

}  // namespace fenro::mschap
