// The configuration of the whole service as one JSON document: what "export" prints and "apply"
// takes.
//
//   {"format": 1,
//    "servers": {"openvpn": {"enable": true, "port": 1194, …}, …},
//    "profiles": {"office": {"protocol": "pptp", "enable": false, "host": "vpn.example.org", …}},
//    "peers": {"phone": {"peer_pub_key": "…", "peer_allow_ip": "198.18.7.2/32", …}},
//    "access": {"bob": {"until": {"openvpn": 1924992000}, "devices": 2}},
//    "rights": {"bob": ["pptp", "openvpn"]},
//    "block": {"enable": true, "limit": 5, "time": 30},
//    "gateway": {"on": true, "first": "office", "second": "branch", …},
//    "guard": {"mode": "on", "lan": true, "ipv6": "block", "dns": "tunnel"},
//    "notifications": {"ops": {"url": "https://…", "events": ["failed"], "secret": …}}}
//
// Members of servers and profiles are the program's options, by the tables of options and of
// fields. What a document leaves out stays as it is. A secret is a text, {"file": "PATH"} or
// {"kept": true} for the one that is stored.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "ormel/config/fields.h"
#include "ormel/options/table.h"
#include "ormelctl/service.h"

namespace ormelctl::site {

inline constexpr int FORMAT = 1;

// A member of a record in the document: an option that shows its value by a field.
struct Member {
  std::string name;
  const ormel::option::CommandOption* option;
  const ormel::config::Field* field;
  bool secret;
};
[[nodiscard]] const std::vector<Member>& members_of(ormel::TYPE type);
[[nodiscard]] ormel::Json value_of(const ormel::config::BaseConfig& record, const Member& member);
// What the option takes for a value of the document.
[[nodiscard]] std::string option_text(const Member& member, const json_t* value);

// The text of an imported OpenVPN profile, a secret beside the members.
inline constexpr const char* PROFILE_TEXT = "config";

// The JSON schema of the document, from the same tables. The caller owns it.
[[nodiscard]] ormel::Json schema();
// An empty text, or the path of the first member that breaks the schema, and why.
[[nodiscard]] std::string broken_rule(const json_t* document);

// Each member that is a secret, by the schema: `visit` gets its object and its path.
using Path = std::vector<std::string>;
using SecretVisitor = std::function<void(json_t* object, const Path& path)>;
void for_each_secret(json_t* document, const SecretVisitor& visit);

// The configuration as it is, secrets as texts.
[[nodiscard]] ormel::Json present();
// The name of each client profile in the document: its own where no other has it, else
// PROTOCOL/INDEX.
[[nodiscard]] std::string key_of(const ormel::config::Management& pool,
                                 const ormel::config::BaseConfig& profile);

// Order of work: nothing new starts before what is to end has ended.
enum class Phase { First, Off, Remove, Change, Add, On, Last };

struct Difference {
  char sign;  // '~', '+' or '-'
  std::string path;
  std::string detail;  // "5 → 20", "(l2tp)"
};

struct Step {
  Phase phase;
  std::string path;
  std::function<Reply()> run;
};

// What separates the configuration from a document.
struct Plan {
  const json_t* document = nullptr;
  const json_t* now = nullptr;
  std::vector<Difference> differences{};
  std::vector<Step> steps{};
  size_t changed = 0, added = 0, removed = 0, same = 0;  // servers, profiles, peers …
  size_t left = 0;                                       // those that the document does not name
  std::string wrong{};                                   // path of a wrong member, and why

  void note(char sign, const std::string& path, const std::string& detail);
  bool refuse(const std::string& path, const std::string& why);  // always false
};

// Compares one part of the document with the present one, and adds what is to be done. `prune`
// removes what the document does not name. False when something is wrong.
struct Part {
  const char* name;
  bool (*plan)(const json_t* wanted, const json_t* now, bool prune, Plan& plan);
};
bool plan_servers(const json_t* wanted, const json_t* now, bool prune, Plan& plan);
bool plan_profiles(const json_t* wanted, const json_t* now, bool prune, Plan& plan);
bool plan_peers(const json_t* wanted, const json_t* now, bool prune, Plan& plan);
bool plan_access(const json_t* wanted, const json_t* now, bool prune, Plan& plan);
bool plan_rights(const json_t* wanted, const json_t* now, bool prune, Plan& plan);
bool plan_block(const json_t* wanted, const json_t* now, bool prune, Plan& plan);
bool plan_gateway(const json_t* wanted, const json_t* now, bool prune, Plan& plan);
bool plan_guard(const json_t* wanted, const json_t* now, bool prune, Plan& plan);
bool plan_notifications(const json_t* wanted, const json_t* now, bool prune, Plan& plan);

// Whether the "url" of a notification is a user who gets mail. That of a webhook is a secret.
[[nodiscard]] bool is_mail_target(const json_t* url);
// A value as people read it in a difference.
[[nodiscard]] std::string shown(const json_t* value);
// Notes the members of `wanted` that differ from those of `now`; whether there are any.
bool note_members(const std::string& path, const json_t* wanted, const json_t* now, Plan& plan);

// Fills in the secrets of a document: files are read, relative to the folder of the document, and
// kept ones are taken from the present configuration. False with `plan.wrong` set.
bool resolve_secrets(json_t* document, const json_t* now, const std::string& folder, Plan& plan);

}  // namespace ormelctl::site
