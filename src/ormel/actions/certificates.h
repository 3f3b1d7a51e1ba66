// Everything on this host that has a certificate, and how long it lasts.
//
// Only certificates and lists of revoked certificates are decoded, never a private key. The
// library that does it is loaded by the first call.
#pragma once

#include <cstddef>
#include <ctime>
#include <string>
#include <string_view>
#include <vector>

#include "ormel/config/pool.h"

namespace ormel::certificates {

enum class Role {
  Authority,      // signs the OpenVPN server's certificate
  NextAuthority,  // will sign it, after a rotation's change-over
  OldAuthority,   // has signed it before
  Server,         // the OpenVPN server's own
  Web,            // the web interface's
  ProfileCa,      // of an OpenVPN client profile: what its server's certificate is checked by
  ProfileCert,    // its own
  ProfileExtra,   // sent along with its own
  ProfileCrl,     // list of revoked certificates; it ends when the next list is due
};

// Text of a role in answers: "authority", "authority-next", "authority-old", "server", "web",
// "profile-ca", "profile-cert", "profile-extra" or "profile-crl".
[[nodiscard]] const char* name_of(Role role);

struct Certificate {
  Role role = Role::Web;
  std::string subject{};       // its common name or organisation: one line of UTF-8, by strangers
  std::time_t not_before = 0;  // seconds since 1970; 0 with a fault
  std::time_t not_after = 0;   // 0 with a fault, and for a list that does not end
  std::string used_by{};       // for people
  std::string profile{};       // name of the client profile, URL-encoded as in its record
  int type = 0, index = 0;     // of the client profile
  std::string fault{};         // why it cannot be read; empty for a good one

  [[nodiscard]] bool ends() const { return fault.empty() && not_after != 0; }
  [[nodiscard]] bool is_profile() const { return role >= Role::ProfileCa; }
};

// The most that is read of one file or block, in bytes and in certificates.
constexpr std::size_t MOST_BYTES = std::size_t{256} << 10U;
constexpr std::size_t MOST_CERTIFICATES = 32;

// Appends what a text in PEM holds of the kind of `like` to `out`, each as a copy of `like`, and
// one with a fault for each malformed piece, and for a text that is too large or holds none.
void add_pem(const std::string& pem, const Certificate& like, std::vector<Certificate>& out);
// The same for the blocks of a stored OpenVPN profile.
void add_profile(const std::string& text, const Certificate& like, std::vector<Certificate>& out);

// Lists all: the OpenVPN server's, the web interface's, and those of the client profiles in `pool`
// by index. Missing files are left out.
[[nodiscard]] std::vector<Certificate> list(const config::Management& pool);

}  // namespace ormel::certificates
