#include "daemons/drovik/dtls.h"

#include <algorithm>
#include <cstring>
#include <ctime>

#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/rand.h>

#include "daemons/drovik/dtls_bio.h"

namespace fenro::drovik {
namespace {

// Ephemeral keys for each connection, so that a key that leaks later opens nothing that was
// recorded.
constexpr const char* CIPHERS = "DHE-PSK-AES128-GCM-SHA256";
constexpr const char* GROUP = "ffdhe3072";  // as strong as the cipher
constexpr const char* IDENTITY = "drovik";
constexpr int SECONDS_A_MINUTE = 60;
constexpr long HANDSHAKE_MTU = 1400;  // of a datagram

// People choose short keys. An attacker who pretends to be the server can try keys against what a
// client answers; this makes each try cost memory and time.
constexpr std::string_view KEY_SALT = "drovik pre-shared key";
constexpr std::uint64_t SCRYPT_N = 16384;
constexpr std::uint64_t SCRYPT_R = 8;
constexpr std::uint64_t SCRYPT_P = 1;

using Parameters = std::unique_ptr<EVP_PKEY, FreeWith<EVP_PKEY_free>>;

const Channel& channel_of(const SSL* ssl) {
  return *static_cast<const Channel*>(SSL_get_app_data(ssl));
}

std::int64_t this_minute() {
  return std::time(nullptr) / SECONDS_A_MINUTE;
}

int make_cookie(SSL* ssl, unsigned char* cookie, unsigned int* length) {
  Dtls::Key made{};
  const Channel& channel = channel_of(ssl);
  if (!channel.dtls().cookie(channel.peer(), this_minute(), made)) return 0;
  std::ranges::copy(made, cookie);
  *length = static_cast<unsigned int>(made.size());
  return 1;
}

// One of this minute or the last.
int check_cookie(SSL* ssl, const unsigned char* cookie, unsigned int length) {
  const Channel& channel = channel_of(ssl);
  Dtls::Key made{};
  if (length != made.size()) return 0;
  for (const std::int64_t minute : {this_minute(), this_minute() - 1}) {
    if (!channel.dtls().cookie(channel.peer(), minute, made)) return 0;
    if (CRYPTO_memcmp(made.data(), cookie, made.size()) == 0) return 1;
  }
  return 0;
}

unsigned int give_key(const Dtls& dtls, unsigned char* out, unsigned int size) {
  if (size < dtls.key().size()) return 0;
  std::ranges::copy(dtls.key(), out);
  return static_cast<unsigned int>(dtls.key().size());
}

unsigned int server_key(SSL* ssl, const char* identity, unsigned char* out, unsigned int size) {
  if (!identity || std::strcmp(identity, IDENTITY) != 0) return 0;
  return give_key(channel_of(ssl).dtls(), out, size);
}

unsigned int client_key(SSL* ssl, const char*, char* identity, unsigned int identity_size,
                        unsigned char* out, unsigned int size) {
  if (identity_size <= std::strlen(IDENTITY)) return 0;
  std::strcpy(identity, IDENTITY);
  return give_key(channel_of(ssl).dtls(), out, size);
}

bool set_group(SSL_CTX* context) {
  const std::unique_ptr<EVP_PKEY_CTX, FreeWith<EVP_PKEY_CTX_free>> maker{
      EVP_PKEY_CTX_new_from_name(nullptr, "DH", nullptr)};
  EVP_PKEY* made = nullptr;
  if (!maker || EVP_PKEY_paramgen_init(maker.get()) != 1 ||
      EVP_PKEY_CTX_set_group_name(maker.get(), GROUP) != 1 ||
      EVP_PKEY_generate(maker.get(), &made) != 1)
    return false;
  Parameters parameters{made};
  if (SSL_CTX_set0_tmp_dh_pkey(context, parameters.get()) != 1) return false;
  std::ignore =
      parameters.release();  // the context's now; each handshake makes its own key in this group
  return true;
}

}  // namespace

std::unique_ptr<Dtls> Dtls::create(Side side, std::string_view psk) {
  std::unique_ptr<Dtls> dtls{new Dtls{side}};
  return dtls->prepare(psk) ? std::move(dtls) : nullptr;
}

Dtls::~Dtls() {
  OPENSSL_cleanse(key_.data(), key_.size());
  OPENSSL_cleanse(cookie_secret_.data(), cookie_secret_.size());
}

bool Dtls::prepare(std::string_view psk) {
  if (psk.empty() ||
      RAND_bytes(cookie_secret_.data(), static_cast<int>(cookie_secret_.size())) != 1)
    return false;
  const auto* salt = reinterpret_cast<const unsigned char*>(KEY_SALT.data());
  if (EVP_PBE_scrypt(psk.data(), psk.size(), salt, KEY_SALT.size(), SCRYPT_N, SCRYPT_R, SCRYPT_P, 0,
                     key_.data(), key_.size()) != 1)
    return false;
  context_.reset(SSL_CTX_new(side_ == Side::Server ? DTLS_server_method() : DTLS_client_method()));
  SSL_CTX* context = context_.get();
  if (!context || SSL_CTX_set_min_proto_version(context, DTLS1_2_VERSION) != 1 ||
      SSL_CTX_set_max_proto_version(context, DTLS1_2_VERSION) != 1 ||
      SSL_CTX_set_cipher_list(context, CIPHERS) != 1)
    return false;
  SSL_CTX_set_options(context, SSL_OP_NO_TICKET | SSL_OP_NO_RENEGOTIATION | SSL_OP_NO_COMPRESSION |
                                   SSL_OP_NO_QUERY_MTU | SSL_OP_COOKIE_EXCHANGE);
  SSL_CTX_set_session_cache_mode(context, SSL_SESS_CACHE_OFF);
  SSL_CTX_set_cookie_generate_cb(context, make_cookie);
  SSL_CTX_set_cookie_verify_cb(context, check_cookie);
  if (side_ == Side::Client) {
    SSL_CTX_set_psk_client_callback(context, client_key);
    return true;
  }
  SSL_CTX_set_psk_server_callback(context, server_key);
  return set_group(context);
}

bool Dtls::cookie(const Peer& peer, std::int64_t minute, Key& out) const {
  const std::array<std::int64_t, 2> message{static_cast<std::int64_t>(peer.key()), minute};
  unsigned int length = 0;
  return HMAC(EVP_sha256(), cookie_secret_.data(), static_cast<int>(cookie_secret_.size()),
              reinterpret_cast<const unsigned char*>(message.data()), sizeof message, out.data(),
              &length) &&
         length == out.size();
}

Channel::Channel(const Dtls& dtls, Post post)
    : dtls_(dtls), post_(std::move(post)), ssl_(SSL_new(dtls.context())) {
  BIO* bio = ssl_ ? make_bio(*this) : nullptr;
  if (!bio) {
    state_ = State::Ended;
    return;
  }
  SSL_set_app_data(ssl_.get(), this);
  SSL_set_bio(ssl_.get(), bio, bio);  // it takes the one reference for both directions
  SSL_set_mtu(ssl_.get(), HANDSHAKE_MTU);
  if (dtls.side() == Dtls::Side::Server) {
    SSL_set_accept_state(ssl_.get());
  } else {
    SSL_set_connect_state(ssl_.get());
  }
}

int Channel::give(char* buffer, int size) {
  const std::size_t length = in_.copy(buffer, static_cast<std::size_t>(size));
  if (!peek_) in_ = {};
  return length > 0 ? static_cast<int>(length) : -1;
}

bool Channel::listen(const Peer& from, std::string_view datagram) {
  if (state_ == State::Ended) return false;
  peer_ = from;
  in_ = datagram;
  ERR_clear_error();
  const std::unique_ptr<BIO_ADDR, FreeWith<BIO_ADDR_free>> unused{BIO_ADDR_new()};
  const bool welcome = unused && DTLSv1_listen(ssl_.get(), unused.get()) == 1;
  if (welcome) shake();
  in_ = {};
  return welcome;
}

void Channel::begin() {
  if (state_ == State::Shaking) shake();
}

void Channel::shake() {
  ERR_clear_error();
  const int result = SSL_do_handshake(ssl_.get());
  if (result == 1) {
    // Without it a man in the middle could have had the same keys on both sides.
    state_ = SSL_get_extms_support(ssl_.get()) == 1 ? State::Open : State::Ended;
    return;
  }
  judge(result);
}

// Only a fault of the other end or of the library ends a channel: datagrams that make no sense are
// no answer at all.
void Channel::judge(int result) {
  const int error = SSL_get_error(ssl_.get(), result);
  if (error != SSL_ERROR_WANT_READ && error != SSL_ERROR_WANT_WRITE) state_ = State::Ended;
}

void Channel::receive(std::string_view datagram, const Deliver& deliver) {
  char message[SSL3_RT_MAX_PLAIN_LENGTH];
  in_ = datagram;
  if (state_ == State::Shaking) shake();
  while (state_ == State::Open) {
    ERR_clear_error();
    const int length = SSL_read(ssl_.get(), message, sizeof message);
    if (length <= 0) {
      judge(length);
      break;
    }
    ++records_;
    deliver({message, static_cast<std::size_t>(length)});
  }
  in_ = {};
}

bool Channel::awaits_proof() const {
  return state_ == State::Shaking && SSL_get_state(ssl_.get()) == TLS_ST_CW_FINISHED;
}

void Channel::send(std::string_view message) {
  if (state_ != State::Open || message.empty()) return;
  ERR_clear_error();
  const int written = SSL_write(ssl_.get(), message.data(), static_cast<int>(message.size()));
  ++records_;
  if (written <= 0) judge(written);
}

void Channel::tick() {
  if (state_ != State::Shaking) return;
  ERR_clear_error();
  if (DTLSv1_handle_timeout(ssl_.get()) < 0) state_ = State::Ended;
}

void Channel::end() {
  if (state_ == State::Open) {
    ERR_clear_error();
    SSL_shutdown(ssl_.get());
  }
  state_ = State::Ended;
}

}  // namespace fenro::drovik
