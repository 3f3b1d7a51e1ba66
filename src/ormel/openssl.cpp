#include "ormel/openssl.h"

#include <climits>
#include <cstdio>
#include <memory>
#include <nettle/base16.h>
#include <nettle/base64.h>
#include <nettle/sha1.h>

#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/opensslv.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include "ormel/library.h"
#include "ormel/system_process.h"

namespace ormel::openssl {

namespace {

static_assert(OPENSSL_VERSION_MAJOR == 3, "the name below is of the library whose headers are used");
constexpr const char* LIBRARY = "libcrypto.so.3";
constexpr const char* VERSION_COMMAND = "/usr/bin/openssl version";
constexpr size_t VERSION_LENGTH = 127;  // bytes of its answer that are looked at

// Certificates are met in an import alone, so their library is loaded on first use: its start is as long as the rest of
// a run. What every run needs comes from a small one.
struct Api {
  decltype(&::BIO_new_mem_buf) bio_new_mem_buf;
  decltype(&::BIO_free_all) bio_free_all;
  decltype(&::PEM_read_bio_X509) read_certificate;
  decltype(&::X509_free) certificate_free;
  decltype(&::X509_get_pubkey) get_public_key;
  decltype(&::EVP_PKEY_free) key_free;
  decltype(&::PEM_read_bio_X509_CRL) read_revocations;
  decltype(&::X509_CRL_free) revocations_free;
};

bool load(Api& api) {
  return load_library(LIBRARY) && find_function(api.bio_new_mem_buf, "BIO_new_mem_buf") &&
         find_function(api.bio_free_all, "BIO_free_all") && find_function(api.read_certificate, "PEM_read_bio_X509") &&
         find_function(api.certificate_free, "X509_free") && find_function(api.get_public_key, "X509_get_pubkey") &&
         find_function(api.key_free, "EVP_PKEY_free") && find_function(api.read_revocations, "PEM_read_bio_X509_CRL") &&
         find_function(api.revocations_free, "X509_CRL_free");
}

// The loaded library; null when it, or one of the functions, is missing.
const Api* api() {
  static Api functions{};
  static const bool loaded = load(functions);
  return loaded ? &functions : nullptr;
}

// An object exists only if the library was loaded.
struct Cleanup {
  void operator()(BIO* bio) const noexcept { api()->bio_free_all(bio); }
  void operator()(X509* certificate) const noexcept { api()->certificate_free(certificate); }
  void operator()(X509_CRL* revocations) const noexcept { api()->revocations_free(revocations); }
  void operator()(EVP_PKEY* key) const noexcept { api()->key_free(key); }
};

template <typename Object>
using Owned = std::unique_ptr<Object, Cleanup>;

Owned<BIO> reader(const std::string& text) {
  if (!api() || text.size() > INT_MAX) return nullptr;
  return Owned<BIO>{api()->bio_new_mem_buf(text.data(), static_cast<int>(text.size()))};
}

const uint8_t* bytes_of(const std::string& text) {
  return reinterpret_cast<const uint8_t*>(text.data());
}

}  // namespace

bool is_crl(const std::string& pem) {
  const Owned<BIO> bio = reader(pem);
  return bio && Owned<X509_CRL>{api()->read_revocations(bio.get(), nullptr, nullptr, nullptr)};
}

bool is_cert(const std::string& pem) {
  const Owned<BIO> bio = reader(pem);
  const Owned<X509> certificate{bio ? api()->read_certificate(bio.get(), nullptr, nullptr, nullptr) : nullptr};
  return certificate && Owned<EVP_PKEY>{api()->get_public_key(certificate.get())};
}

int version_num() {
  std::string output;
  if (system::do_exec(VERSION_COMMAND, output) != 0) return -1;
  unsigned int major = 0;
  unsigned int minor = 0;
  unsigned int patch = 0;
  // Numbers out of range wrap; the comparison with a version that is decades old does not mind.
  const std::string head = output.substr(0, VERSION_LENGTH);
  const int found = std::sscanf(head.c_str(), "%*s %u.%u.%u", &major, &minor, &patch);  // NOLINT(cert-err34-c)
  if (found != 3) return -1;
  return static_cast<int>(10000000 * major + 10000 * minor + 1000 * patch);
}

std::string sha1(const std::string& text) {
  sha1_ctx context;
  sha1_init(&context);
  sha1_update(&context, text.size(), bytes_of(text));
  uint8_t digest[SHA1_DIGEST_SIZE];
  sha1_digest(&context, sizeof digest, digest);
  std::string out(BASE16_ENCODE_LENGTH(sizeof digest), '\0');
  base16_encode_update(out.data(), sizeof digest, digest);
  return out;
}

std::string base64_encode(const std::string& text) {
  std::string out(BASE64_ENCODE_RAW_LENGTH(text.size()), '\0');
  base64_encode_raw(out.data(), text.size(), bytes_of(text));
  return out;
}

std::string base64_decode(const std::string& text) {
  base64_decode_ctx context;
  base64_decode_init(&context);
  size_t length = BASE64_DECODE_LENGTH(text.size());
  std::string out(length, '\0');
  const int good =
      base64_decode_update(&context, &length, reinterpret_cast<uint8_t*>(out.data()), text.size(), text.data());
  out.resize(good ? length : 0);
  return out;
}

}  // namespace ormel::openssl
