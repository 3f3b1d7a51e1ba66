// The one-shot SHA1() of OpenSSL 3 looks its provider up through the whole configuration, several times the cost of all
// else that a run does; the plain functions are marked deprecated and are what is wanted here.
#define OPENSSL_SUPPRESS_DEPRECATED

#include "ormel/openssl.h"

#include <climits>
#include <cstdio>
#include <memory>

#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/sha.h>
#include <openssl/x509.h>

#include "ormel/handle.h"
#include "ormel/system_process.h"

namespace ormel::openssl {

namespace {

using Bio = std::unique_ptr<BIO, FreeWith<BIO_free_all>>;
using Cert = std::unique_ptr<X509, FreeWith<X509_free>>;
using Crl = std::unique_ptr<X509_CRL, FreeWith<X509_CRL_free>>;
using Key = std::unique_ptr<EVP_PKEY, FreeWith<EVP_PKEY_free>>;

constexpr const char* OPENSSL = "/usr/bin/openssl";
constexpr size_t VERSION_LENGTH = 127;  // bytes of its answer that are looked at

Bio reader(const std::string& text) {
  return Bio{text.size() <= INT_MAX ? BIO_new_mem_buf(text.data(), static_cast<int>(text.size())) : nullptr};
}

// A base64 filter in front of `sink`, which it owns.
Bio base64_filter(Bio sink) {
  Bio filter{BIO_new(BIO_f_base64())};
  if (!filter || !sink) return nullptr;
  BIO_set_flags(filter.get(), BIO_FLAGS_BASE64_NO_NL);
  BIO_push(filter.get(), sink.release());
  return filter;
}

}  // namespace

bool is_crl(const std::string& pem) {
  const Bio bio = reader(pem);
  return bio && Crl{PEM_read_bio_X509_CRL(bio.get(), nullptr, nullptr, nullptr)};
}

bool is_cert(const std::string& pem) {
  const Bio bio = reader(pem);
  const Cert cert{bio ? PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr) : nullptr};
  return cert && Key{X509_get_pubkey(cert.get())};
}

int version_num() {
  std::string output;
  if (system::do_exec_safe({OPENSSL, "version"}, output) != 0) return -1;
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
  unsigned char digest[SHA_DIGEST_LENGTH];
  SHA_CTX context;
  SHA1_Init(&context);
  SHA1_Update(&context, text.data(), text.size());
  SHA1_Final(digest, &context);
  constexpr const char* HEX = "0123456789abcdef";
  std::string out;
  for (const unsigned char byte : digest) {
    out += HEX[byte >> 4];
    out += HEX[byte & 15];
  }
  return out;
}

std::string base64_encode(const std::string& text) {
  const Bio bio = base64_filter(Bio{BIO_new(BIO_s_mem())});
  if (!bio || text.size() > INT_MAX) return {};
  if (!text.empty() && BIO_write(bio.get(), text.data(), static_cast<int>(text.size())) <= 0) return {};
  if (BIO_flush(bio.get()) != 1) return {};
  char* encoded = nullptr;
  const long length = BIO_get_mem_data(bio.get(), &encoded);
  return {encoded, static_cast<size_t>(length)};
}

std::string base64_decode(const std::string& text) {
  const Bio bio = base64_filter(reader(text));
  if (!bio) return {};
  std::string out(text.size(), '\0');
  size_t length = 0;
  while (length < out.size()) {
    const int got = BIO_read(bio.get(), out.data() + length, static_cast<int>(out.size() - length));
    if (got <= 0) break;
    length += static_cast<size_t>(got);
  }
  out.resize(length);
  return out;
}

}  // namespace ormel::openssl
