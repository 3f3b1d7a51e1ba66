// Which users of the appliance may log in to which VPN server.
//
// The store is /etc/config/vpn_user_ex.conf, a line a user, "name:pptp:openvpn:l2tp:0:drovik", each
// field 1 or 0; the fifth is ignored. /etc/ppp/pap-secrets and /etc/ppp/chap-secrets are derived
// from it for the PPP daemons and never read: each right has a line with the user, the daemon and
// where the password is looked up, separated by tabs. No password is kept here.
#pragma once

#include <map>
#include <string>

#include "ormel/base/json.h"

namespace ormel {

using PrivilegeStorage =
    std::map<std::string, int>;  // a user's name to a mask of server types, see TYPE

// What `load` and `save` do, with the files below the folder `root`; an appliance has them below
// "".
void load_privileges(const std::string& root, PrivilegeStorage& storage);
void save_privileges(const std::string& root, const PrivilegeStorage& storage);

class UserPrivilege {
 public:
  PrivilegeStorage storage;

  // Adds what the file holds; a file that cannot be opened adds nothing.
  void load() { load_privileges("", storage); }
  // Replaces the three files. Failures are not reported; each file is the old or the new one.
  void save() const { save_privileges("", storage); }

  void set(const std::string& user, int mask) { storage[user] = mask; }
  void unset(const std::string& user) { storage.erase(user); }
  // The mask, 0 for an unknown user.
  [[nodiscard]] int get(const std::string& user) const;
  // A page of those whose name contains `filter` in any case: skips `start`, sets the next `count`
  // in `out` as members. The number of all users, filtered or not.
  int get(int start, int count, const std::string& filter, JsonValue& out) const;
};

// Whether two characters are equal in lower case.
[[nodiscard]] bool tolower(char a, char b);

}  // namespace ormel
