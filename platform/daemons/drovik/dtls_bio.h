// The way between OpenSSL and a Channel: reads take the datagram at hand, writes are posted.
#pragma once

#include <openssl/bio.h>

namespace fenro::drovik {

class Channel;

[[nodiscard]] BIO* make_bio(Channel& channel);

}  // namespace fenro::drovik
