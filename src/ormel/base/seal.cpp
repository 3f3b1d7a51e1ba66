#include "ormel/base/seal.h"

#include <array>
#include <cstdint>
#include <memory>
#include <sys/random.h>

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/kdf.h>

#include "ormel/base/library.h"

namespace ormel::openssl {

namespace {

constexpr const char* LIBRARY = "libcrypto.so.3";
constexpr std::string_view MAGIC = "ORMELBAK";
constexpr uint8_t FORMAT = 1;
constexpr size_t KEY_SIZE = 32, SALT_SIZE = 16, NONCE_SIZE = 12, TAG_SIZE = 16, LENGTH_SIZE = 8;
constexpr size_t COSTS_AT = 9, SALT_AT = 12, NONCE_AT = 28, LENGTH_AT = 40, HEADER_SIZE = 48;
static_assert(LENGTH_AT + LENGTH_SIZE == HEADER_SIZE && SALT_AT + SALT_SIZE == NONCE_AT &&
              NONCE_AT + NONCE_SIZE == LENGTH_AT);

// 32 MiB and some tenths of a second for each guess.
struct Costs {
  uint8_t log_n, r, p;
};
constexpr Costs USUAL{15, 8, 3};
constexpr Costs LEAST{14, 8, 1}, MOST{17, 8, 4};
constexpr uint64_t MOST_MEMORY = uint64_t{160} << 20U;

using Bytes = unsigned char;

// Backups are rare, so the library is loaded then.
struct Api {
  decltype(&::EVP_PBE_scrypt) scrypt;
  decltype(&::EVP_CIPHER_CTX_new) make;
  decltype(&::EVP_CIPHER_CTX_free) free;
  decltype(&::EVP_CIPHER_CTX_ctrl) control;
  decltype(&::EVP_aes_256_gcm) cipher;
  decltype(&::EVP_EncryptInit_ex) encrypt_init;
  decltype(&::EVP_EncryptUpdate) encrypt_update;
  decltype(&::EVP_EncryptFinal_ex) encrypt_final;
  decltype(&::EVP_DecryptInit_ex) decrypt_init;
  decltype(&::EVP_DecryptUpdate) decrypt_update;
  decltype(&::EVP_DecryptFinal_ex) decrypt_final;
  decltype(&::OPENSSL_cleanse) cleanse;
};

bool load(Api& api) {
  return load_library(LIBRARY) && find_function(api.scrypt, "EVP_PBE_scrypt") &&
         find_function(api.make, "EVP_CIPHER_CTX_new") &&
         find_function(api.free, "EVP_CIPHER_CTX_free") &&
         find_function(api.control, "EVP_CIPHER_CTX_ctrl") &&
         find_function(api.cipher, "EVP_aes_256_gcm") &&
         find_function(api.encrypt_init, "EVP_EncryptInit_ex") &&
         find_function(api.encrypt_update, "EVP_EncryptUpdate") &&
         find_function(api.encrypt_final, "EVP_EncryptFinal_ex") &&
         find_function(api.decrypt_init, "EVP_DecryptInit_ex") &&
         find_function(api.decrypt_update, "EVP_DecryptUpdate") &&
         find_function(api.decrypt_final, "EVP_DecryptFinal_ex") &&
         find_function(api.cleanse, "OPENSSL_cleanse");
}

const Api* api() {
  static Api functions{};
  static const bool loaded = load(functions);
  return loaded ? &functions : nullptr;
}

struct FreeContext {
  void operator()(EVP_CIPHER_CTX* context) const noexcept { api()->free(context); }
};
using Context = std::unique_ptr<EVP_CIPHER_CTX, FreeContext>;

const Bytes* bytes_of(std::string_view text) {
  return reinterpret_cast<const Bytes*>(text.data());
}

Bytes* bytes_of(std::string& text) {
  return reinterpret_cast<Bytes*>(text.data());
}

// A key of a header's salt and costs, which does not stay in memory.
class Key {
 public:
  Key(const std::string& passphrase, std::string_view header) {
    const auto cost = [&](size_t at) { return static_cast<uint8_t>(header[COSTS_AT + at]); };
    made_ = api()->scrypt(passphrase.data(), passphrase.size(), bytes_of(header.substr(SALT_AT)),
                          SALT_SIZE, uint64_t{1} << cost(0), cost(1), cost(2), MOST_MEMORY,
                          bytes_.data(), bytes_.size()) == 1;
  }
  Key(const Key&) = delete;
  Key& operator=(const Key&) = delete;
  ~Key() { api()->cleanse(bytes_.data(), bytes_.size()); }
  explicit operator bool() const { return made_; }
  [[nodiscard]] const Bytes* data() const { return bytes_.data(); }

 private:
  std::array<Bytes, KEY_SIZE> bytes_{};
  bool made_ = false;
};

bool fill_random(std::string& text, size_t at, size_t count) {
  return getrandom(text.data() + at, count, 0) == static_cast<ssize_t>(count);
}

std::string length_bytes(uint64_t length) {
  std::string bytes(LENGTH_SIZE, '\0');
  for (size_t i = LENGTH_SIZE; i-- > 0; length >>= 8U) bytes[i] = static_cast<char>(length & 0xff);
  return bytes;
}

// A new header; empty when there is no randomness.
std::string new_header(size_t length) {
  std::string header{MAGIC};
  for (const uint8_t byte : {FORMAT, USUAL.log_n, USUAL.r, USUAL.p})
    header += static_cast<char>(byte);
  header.resize(LENGTH_AT);
  if (!fill_random(header, SALT_AT, SALT_SIZE + NONCE_SIZE)) return {};
  return header + length_bytes(length);
}

bool is_usual(std::string_view header) {
  const auto between = [&](size_t at, uint8_t least, uint8_t most) {
    const auto cost = static_cast<uint8_t>(header[COSTS_AT + at]);
    return cost >= least && cost <= most;
  };
  return between(0, LEAST.log_n, MOST.log_n) && between(1, LEAST.r, MOST.r) &&
         between(2, LEAST.p, MOST.p);
}

// What can be said of a sealed text without its passphrase.
Sealing check(std::string_view sealed) {
  if (!sealed.starts_with(MAGIC) || sealed.size() < HEADER_SIZE + TAG_SIZE)
    return Sealing::NotSealed;
  if (static_cast<uint8_t>(sealed[MAGIC.size()]) > FORMAT) return Sealing::NewerFormat;
  const size_t length = sealed.size() - HEADER_SIZE - TAG_SIZE;
  if (sealed[MAGIC.size()] != FORMAT || length > MOST_SEALED ||
      sealed.substr(LENGTH_AT, LENGTH_SIZE) != length_bytes(length))
    return Sealing::NotSealed;
  return is_usual(sealed) ? Sealing::Done : Sealing::Unusual;
}

// Encrypted bytes and tag are appended to the header in `out`.
bool encrypt(const std::string& text, const Key& key, std::string& out) {
  const Context context{api()->make()};
  const std::string header = out;
  int length = 0;
  out.resize(HEADER_SIZE + text.size() + TAG_SIZE);
  Bytes* const place = bytes_of(out) + HEADER_SIZE;
  return context &&
         api()->encrypt_init(context.get(), api()->cipher(), nullptr, key.data(),
                             bytes_of(header) + NONCE_AT) == 1 &&
         api()->encrypt_update(context.get(), nullptr, &length, bytes_of(header), HEADER_SIZE) ==
             1 &&
         api()->encrypt_update(context.get(), place, &length, bytes_of(std::string_view{text}),
                               static_cast<int>(text.size())) == 1 &&
         api()->encrypt_final(context.get(), place + length, &length) == 1 &&
         api()->control(context.get(), EVP_CTRL_AEAD_GET_TAG, TAG_SIZE, place + text.size()) == 1;
}

bool decrypt(std::string_view sealed, const Key& key, std::string& text) {
  const Context context{api()->make()};
  const std::string_view encrypted =
      sealed.substr(HEADER_SIZE, sealed.size() - HEADER_SIZE - TAG_SIZE);
  std::string tag{sealed.substr(sealed.size() - TAG_SIZE)};
  int length = 0;
  text.resize(encrypted.size() + 1);  // a place also for nothing
  const bool good =
      context &&
      api()->decrypt_init(context.get(), api()->cipher(), nullptr, key.data(),
                          bytes_of(sealed) + NONCE_AT) == 1 &&
      api()->control(context.get(), EVP_CTRL_AEAD_SET_TAG, TAG_SIZE, tag.data()) == 1 &&
      api()->decrypt_update(context.get(), nullptr, &length, bytes_of(sealed), HEADER_SIZE) == 1 &&
      api()->decrypt_update(context.get(), bytes_of(text), &length, bytes_of(encrypted),
                            static_cast<int>(encrypted.size())) == 1 &&
      api()->decrypt_final(context.get(), bytes_of(text) + length, &length) == 1;
  if (!good) api()->cleanse(text.data(), text.size());
  text.resize(good ? encrypted.size() : 0);
  return good;
}

}  // namespace

Sealing seal(const std::string& text, const std::string& passphrase, std::string& out) {
  out = text.size() <= MOST_SEALED && api() ? new_header(text.size()) : "";
  if (out.empty()) return Sealing::NoLibrary;
  const Key key{passphrase, out};
  const bool sealed = key && encrypt(text, key, out);
  if (!sealed) out.clear();
  return sealed ? Sealing::Done : Sealing::NoLibrary;
}

Sealing unseal(std::string_view sealed, const std::string& passphrase, std::string& text) {
  text.clear();
  if (const Sealing fault = check(sealed); fault != Sealing::Done) return fault;
  if (!api()) return Sealing::NoLibrary;
  const Key key{passphrase, sealed};
  if (!key) return Sealing::NoLibrary;
  return decrypt(sealed, key, text) ? Sealing::Done : Sealing::WrongPassphrase;
}

}  // namespace ormel::openssl
