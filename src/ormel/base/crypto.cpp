#include "ormel/base/crypto.h"

#include <algorithm>
#include <climits>
#include <memory>
#include <nettle/base16.h>
#include <nettle/base64.h>
#include <nettle/sha1.h>
#include <nettle/sha2.h>

#include <openssl/asn1.h>
#include <openssl/bio.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/objects.h>
#include <openssl/opensslv.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include "base/base64.h"
#include "base/utf8.h"
#include "ormel/base/library.h"
#include "ormel/base/text.h"

namespace ormel::openssl {

namespace {

static_assert(OPENSSL_VERSION_MAJOR == 3,
              "the name below is of the library whose headers are used");
constexpr const char* LIBRARY = "libcrypto.so.3";

// Few runs look at certificates, so their library is loaded on first use: its start is as long as
// the rest of a run. What every run needs comes from a small one.
struct Api {
  decltype(&::BIO_new_mem_buf) bio_new_mem_buf;
  decltype(&::BIO_free_all) bio_free_all;
  decltype(&::PEM_read_bio_X509) read_certificate;
  decltype(&::X509_free) certificate_free;
  decltype(&::X509_get_pubkey) get_public_key;
  decltype(&::EVP_PKEY_free) key_free;
  decltype(&::PEM_read_bio_X509_CRL) read_revocations;
  decltype(&::X509_CRL_free) revocations_free;
  decltype(&::X509_get0_notAfter) get_end;
  decltype(&::X509_get0_notBefore) get_begin;
  decltype(&::ASN1_TIME_to_tm) to_calendar;
  decltype(&::X509_get_subject_name) get_subject;
  decltype(&::X509_CRL_get_issuer) get_issuer;
  decltype(&::X509_CRL_get0_lastUpdate) get_update;
  decltype(&::X509_CRL_get0_nextUpdate) get_next_update;
  decltype(&::X509_NAME_get_index_by_NID) find_name_part;
  decltype(&::X509_NAME_get_entry) get_name_part;
  decltype(&::X509_NAME_ENTRY_get_data) get_data;
  decltype(&::ASN1_STRING_to_UTF8) to_utf8;
  decltype(&::CRYPTO_free) free_bytes;
};

bool load(Api& api) {
  return load_library(LIBRARY) && find_function(api.bio_new_mem_buf, "BIO_new_mem_buf") &&
         find_function(api.bio_free_all, "BIO_free_all") &&
         find_function(api.read_certificate, "PEM_read_bio_X509") &&
         find_function(api.certificate_free, "X509_free") &&
         find_function(api.get_public_key, "X509_get_pubkey") &&
         find_function(api.key_free, "EVP_PKEY_free") &&
         find_function(api.read_revocations, "PEM_read_bio_X509_CRL") &&
         find_function(api.revocations_free, "X509_CRL_free") &&
         find_function(api.get_end, "X509_get0_notAfter") &&
         find_function(api.get_begin, "X509_get0_notBefore") &&
         find_function(api.to_calendar, "ASN1_TIME_to_tm") &&
         find_function(api.get_subject, "X509_get_subject_name") &&
         find_function(api.get_issuer, "X509_CRL_get_issuer") &&
         find_function(api.get_update, "X509_CRL_get0_lastUpdate") &&
         find_function(api.get_next_update, "X509_CRL_get0_nextUpdate") &&
         find_function(api.find_name_part, "X509_NAME_get_index_by_NID") &&
         find_function(api.get_name_part, "X509_NAME_get_entry") &&
         find_function(api.get_data, "X509_NAME_ENTRY_get_data") &&
         find_function(api.to_utf8, "ASN1_STRING_to_UTF8") &&
         find_function(api.free_bytes, "CRYPTO_free");
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

// The library would ask the terminal for the password of an encrypted piece, and wait.
int without_password(char*, int, int, void*) {
  return -1;
}

Owned<BIO> reader(const std::string& text) {
  if (!api() || text.size() > INT_MAX) return nullptr;
  return Owned<BIO>{api()->bio_new_mem_buf(text.data(), static_cast<int>(text.size()))};
}

bool read_time(const ASN1_TIME* from, std::time_t& to) {
  std::tm calendar{};
  if (api()->to_calendar(from, &calendar) != 1) return false;
  to = timegm(&calendar);
  return true;
}

// A stranger's text as one line of UTF-8 of limited length.
std::string harmless(const std::string& text) {
  constexpr unsigned int LONGEST = 255;
  std::string line = mb_string(fenro::valid_utf8(text), LONGEST);
  std::ranges::replace_if(
      line, [](unsigned char c) { return c < ' ' || c == 0x7f; }, '?');
  return line;
}

// The common name, or the organisation; empty without either, or where its encoding is broken.
std::string name_of(const X509_NAME* name) {
  for (const int part : {NID_commonName, NID_organizationName}) {
    const int at = api()->find_name_part(name, part, -1);
    if (at < 0) continue;
    unsigned char* bytes = nullptr;
    const int length = api()->to_utf8(&bytes, api()->get_data(api()->get_name_part(name, at)));
    if (length < 0) return {};
    const std::string text(reinterpret_cast<const char*>(bytes), static_cast<size_t>(length));
    api()->free_bytes(bytes, __FILE__, __LINE__);
    if (!text.empty()) return harmless(text);
  }
  return {};
}

const uint8_t* bytes_of(const std::string& text) {
  return reinterpret_cast<const uint8_t*>(text.data());
}

template <size_t Size>
std::string base16(const uint8_t (&bytes)[Size]) {
  std::string out(BASE16_ENCODE_LENGTH(Size), '\0');
  base16_encode_update(out.data(), Size, bytes);
  return out;
}

// The functions of one hash of Nettle, one after the other, on the whole text.
template <typename Context, size_t Size>
std::string digest_of(const std::string& text, void (*init)(Context*),
                      void (*update)(Context*, size_t, const uint8_t*),
                      void (*finish)(Context*, size_t, uint8_t*)) {
  Context context;
  init(&context);
  update(&context, text.size(), bytes_of(text));
  uint8_t digest[Size];
  finish(&context, Size, digest);
  return base16(digest);
}

}  // namespace

bool is_crl(const std::string& pem) {
  const Owned<BIO> bio = reader(pem);
  return bio &&
         Owned<X509_CRL>{api()->read_revocations(bio.get(), nullptr, without_password, nullptr)};
}

bool is_cert(const std::string& pem) {
  const Owned<BIO> bio = reader(pem);
  const Owned<X509> certificate{
      bio ? api()->read_certificate(bio.get(), nullptr, without_password, nullptr) : nullptr};
  return certificate && Owned<EVP_PKEY>{api()->get_public_key(certificate.get())};
}

std::vector<CertificateFacts> certificates_of(const std::string& pem) {
  std::vector<CertificateFacts> all;
  const Owned<BIO> bio = reader(pem);
  while (bio) {
    const Owned<X509> one{api()->read_certificate(bio.get(), nullptr, without_password, nullptr)};
    CertificateFacts facts;
    if (!one || !read_time(api()->get_begin(one.get()), facts.not_before) ||
        !read_time(api()->get_end(one.get()), facts.not_after))
      break;
    facts.subject = name_of(api()->get_subject(one.get()));
    facts.days = days_until(facts.not_after);
    all.push_back(std::move(facts));
  }
  return all;
}

std::vector<CertificateFacts> revocation_lists_of(const std::string& pem) {
  std::vector<CertificateFacts> all;
  const Owned<BIO> bio = reader(pem);
  while (bio) {
    const Owned<X509_CRL> one{
        api()->read_revocations(bio.get(), nullptr, without_password, nullptr)};
    CertificateFacts facts;
    if (!one || !read_time(api()->get_update(one.get()), facts.not_before)) break;
    const ASN1_TIME* const next = api()->get_next_update(one.get());
    if (next && !read_time(next, facts.not_after)) break;
    facts.subject = name_of(api()->get_issuer(one.get()));
    facts.days = next ? days_until(facts.not_after) : 0;
    all.push_back(std::move(facts));
  }
  return all;
}

long days_until(std::time_t end) {
  constexpr long DAY = 24L * 60 * 60;
  const std::time_t left = end - std::time(nullptr);
  return left < 0 && left > -DAY ? -1 : left / DAY;
}

std::string sha1(const std::string& text) {
  return digest_of<sha1_ctx, SHA1_DIGEST_SIZE>(text, sha1_init, sha1_update, sha1_digest);
}

std::string sha256(const std::string& text) {
  return digest_of<sha256_ctx, SHA256_DIGEST_SIZE>(text, sha256_init, sha256_update, sha256_digest);
}

std::string base64_encode(const std::string& text) {
  return fenro::to_base64(text);
}

std::string base64_decode(const std::string& text) {
  base64_decode_ctx context;
  base64_decode_init(&context);
  size_t length = BASE64_DECODE_LENGTH(text.size());
  std::string out(length, '\0');
  const int good = base64_decode_update(&context, &length, reinterpret_cast<uint8_t*>(out.data()),
                                        text.size(), text.data());
  out.resize(good ? length : 0);
  return out;
}

}  // namespace ormel::openssl
