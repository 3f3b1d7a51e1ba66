// The default gateway policy: which client tunnels carry the appliance's own traffic.
//
// It is in /etc/config/vpn_options.conf as one JSON object on one line, guarded by the platform's
// locks:
//   {"global": {"version": "1"}, "gw_setting": {"as_gw_en": 1, "gw1": {"type", "index", "sname"},
//   "snat": 0,
//    "failover_en": 1, "failover_interval": 5, "gw2": {"type", "index", "sname"}}}
// With `as_gw_en` 0 the policy is off and gw_setting holds nothing else. The network daemon acts on
// the file when it is notified that it has changed.
#pragma once

#include <string>

#include "base/types.h"
#include "ormel/base/handle.h"
#include "ormel/base/json.h"

namespace ormel {

// Holds no state: each call goes to the file.
class GlobalConfig {
 public:
  // The document of a policy that is off.
  [[nodiscard]] Json get_tmpl() const;
  // The whole document, never null: the template when the file is missing or holds no object, an
  // empty object when it cannot be locked or read.
  [[nodiscard]] Json load() const;
  // One member of the document; an empty object for a null key or a missing member.
  [[nodiscard]] Json load(const char* key) const;
  // Sets `out[key]` to the member. 0, or -1 for a null key.
  int load(const char* key, JsonValue& out) const;
  // Replaces those top-level members that the document has by those of a JSON text, notifies the
  // users and tells the network daemon. Always 0.
  int save(const char* raw) const;
  // Takes a profile that is gone out of the policy. Always 0.
  int disable_gateway(TYPE type, int index) const;
  // Sets `out["type"]` and `out["index"]` from the gateway that is in use; 0 and 0 for one that is
  // no tunnel.
  void get_vpn_gw(JsonValue& out) const;
};

// Type and index of a client's interface by its name; NONE_TYPE for a number below every range.
void ifname_to_typeindex(const std::string& ifname, TYPE& type, int& index);
// Key of a client profile in the network daemon's tables; empty for a type that is no client.
[[nodiscard]] std::string typeindex_to_sname(TYPE type, int index);
// Words of the notifications; empty for anything unknown.
[[nodiscard]] const char* type_to_string(TYPE type);
[[nodiscard]] const char* interval_to_string(int interval);
// Display name of a profile by its key, from the network daemon; empty when it does not know it.
[[nodiscard]] std::string get_profile_name(const std::string& key);
// Notifies the users of a policy that is being set; switching it off is silent.
void ormel_gw_nclog(const json_t* raw);

}  // namespace ormel
