#include "ormel/actions/certificates.h"

#include <algorithm>
#include <iterator>
#include <unistd.h>

#include "ormel/base/crypto.h"
#include "ormel/base/file.h"
#include "ormel/drivers/openvpn/openvpn.h"
#include "ormel/drivers/openvpn/report.h"

namespace ormel::certificates {

namespace {

constexpr std::size_t MOST_PROFILE = std::size_t{16} << 20U;  // what the reader of profiles takes
constexpr const char* WEB = "/etc/fenro/web/server.crt";
constexpr const char* AUTHORITY = "/etc/openvpn/keys/ca.crt";
constexpr const char* NEXT_AUTHORITY = "/etc/openvpn/keys/next.crt";
constexpr const char* SERVER = "/etc/openvpn/keys/myserver.crt";

constexpr const char* ROLE_NAMES[] = {
    "authority",  "authority-next", "authority-old", "server",     "web",
    "profile-ca", "profile-cert",   "profile-extra", "profile-crl"};
static_assert(std::size(ROLE_NAMES) == static_cast<std::size_t>(Role::ProfileCrl) + 1);

// The blocks of a profile that hold certificates.
struct Block {
  std::string_view name;
  Role role;
};
constexpr Block BLOCKS[] = {{"ca", Role::ProfileCa},
                            {"cert", Role::ProfileCert},
                            {"extra-certs", Role::ProfileExtra},
                            {"crl-verify", Role::ProfileCrl}};
constexpr std::string_view ENCRYPTED_BLOCK = "pkcs12";
constexpr const char* TOO_LARGE = "too large to be looked at";

constexpr std::string_view CERTIFICATE_LABELS[] = {"CERTIFICATE", "X509 CERTIFICATE",
                                                   "TRUSTED CERTIFICATE"};
constexpr std::string_view CRL_LABELS[] = {"X509 CRL"};

bool is_label_of(Role role, std::string_view label) {
  return role == Role::ProfileCrl
             ? std::ranges::find(CRL_LABELS, label) != std::end(CRL_LABELS)
             : std::ranges::find(CERTIFICATE_LABELS, label) != std::end(CERTIFICATE_LABELS);
}

// The pieces of a text that are of the role's kind. Anything else, such as a key, is skipped
// undecoded. An unterminated piece extends to the end of the text.
std::vector<std::string> pieces_of(std::string_view pem, Role role) {
  constexpr std::string_view BEGIN = "-----BEGIN ", DASHES = "-----";
  std::vector<std::string> pieces;
  for (std::size_t at = pem.find(BEGIN); at != std::string_view::npos; at = pem.find(BEGIN, at)) {
    const std::size_t name = at + BEGIN.size();
    const std::string_view label = pem.substr(name, pem.find(DASHES, name) - name);
    const std::string last = "-----END " + std::string(label.substr(0, 64)) + "-----";
    const std::size_t end = pem.find(last, name);
    const std::size_t after = end == std::string_view::npos ? pem.size() : end + last.size();
    if (is_label_of(role, label)) pieces.emplace_back(pem.substr(at, after - at));
    at = after;
  }
  return pieces;
}

void add_fault(const char* fault, const Certificate& like, std::vector<Certificate>& out) {
  out.push_back(like);
  out.back().fault = fault;
}

void add_file(const char* path, const Certificate& like, std::vector<Certificate>& out) {
  std::string pem;
  if (access(path, F_OK) != 0) return;
  if (!system::read_file(path, pem, MOST_BYTES))
    add_fault("the file cannot be read, or is too large", like, out);
  else
    add_pem(pem, like, out);
}

// The first certificate of the bundle signs; the others belong to a rotation.
void add_authorities(std::vector<Certificate>& out) {
  Certificate authority;
  authority.role = Role::Authority;
  authority.used_by = "all downloaded profiles";
  const std::size_t first = out.size();
  add_file(AUTHORITY, authority, out);
  const bool is_next = access(NEXT_AUTHORITY, F_OK) == 0;
  for (std::size_t at = first + 1; at < out.size(); ++at)
    out[at].role = is_next ? Role::NextAuthority : Role::OldAuthority;
}

void add_openvpn_client(const ovpn::ClientConfig& record, std::vector<Certificate>& out) {
  Certificate like;
  like.profile = record.name;
  like.type = record.type;
  like.index = record.index;
  like.used_by = "client tunnel";
  const std::string path = record.profile_path();
  std::string text;
  if (system::read_file(path.c_str(), text, MOST_PROFILE)) {
    add_profile(text, like, out);
  } else if (access(path.c_str(), F_OK) == 0) {
    like.role = Role::ProfileCa;
    add_fault("the profile's file cannot be read", like, out);
  }
  like.role = Role::ProfileCrl;
  add_file((path + ovpn::CRL_ENDING).c_str(), like, out);
}

}  // namespace

const char* name_of(Role role) {
  return ROLE_NAMES[static_cast<std::size_t>(role)];
}

void add_pem(const std::string& pem, const Certificate& like, std::vector<Certificate>& out) {
  if (pem.size() > MOST_BYTES) return add_fault(TOO_LARGE, like, out);
  const std::vector<std::string> pieces = pieces_of(pem, like.role);
  if (pieces.empty()) return add_fault("holds nothing of its kind", like, out);
  if (pieces.size() > MOST_CERTIFICATES) return add_fault(TOO_LARGE, like, out);
  for (const std::string& piece : pieces) {
    const auto facts = like.role == Role::ProfileCrl ? openssl::revocation_lists_of(piece)
                                                     : openssl::certificates_of(piece);
    if (facts.size() != 1) {
      add_fault("malformed", like, out);
      continue;
    }
    out.push_back(like);
    out.back().subject = facts[0].subject;
    out.back().not_before = facts[0].not_before;
    out.back().not_after = facts[0].not_after;
  }
}

void add_profile(const std::string& text, const Certificate& like, std::vector<Certificate>& out) {
  for (const ovpn::ProfileItem& item : ovpn::items_of(text)) {
    if (!item.block) continue;
    Certificate one = like;
    one.role = Role::ProfileCert;
    if (item.name == ENCRYPTED_BLOCK)
      add_fault("in a PKCS#12 block, which is not opened", one, out);
    const auto* const row = std::ranges::find(BLOCKS, item.name, &Block::name);
    if (row == std::end(BLOCKS)) continue;
    one.role = row->role;
    add_pem(item.body, one, out);
  }
}

std::vector<Certificate> list(const config::Management& pool) {
  std::vector<Certificate> all;
  add_authorities(all);
  Certificate like;
  like.role = Role::Server;
  like.used_by = "openvpn server";
  add_file(SERVER, like, all);
  like.role = Role::Web;
  like.used_by = "web interface";
  add_file(WEB, like, all);
  for (const auto& holder : pool.config_pool) {
    if (holder->bc && holder->bc->type == OVPN_CLIENT_TYPE)
      add_openvpn_client(static_cast<const ovpn::ClientConfig&>(*holder->bc), all);
  }
  return all;
}

}  // namespace ormel::certificates
