// The rights themselves.
#include "ormel/actions/privilege.h"

#include <algorithm>
#include <pwd.h>
#include <set>
#include <string>
#include <vector>

#include "base/tunnel.h"
#include "ormel/actions/log_db.h"
#include "ormel/base/text.h"
#include "ormel/host/event_log.h"
#include "ormel/host/sessions.h"
#include "ormel/web/grant.h"
#include "ormel/web/routes.h"

namespace ormel::cgi::privilege {

namespace {

constexpr char MASK_MARK = '|';
constexpr int FIRST = 0;
constexpr int PAGE = 50;

// Whether a name can stand in the store and in quotes in the secrets files, and nothing else be
// read from them.
bool is_storable(const std::string& user) {
  const auto breaks = [](unsigned char byte) {
    return byte < ' ' || byte == 0x7f || byte == '"' || byte == ':';
  };
  return !user.empty() && user.back() != '\\' && std::none_of(user.begin(), user.end(), breaks);
}

// The users whose rights one request changes, each once, and what is to be done about them besides.
class Changes {
 public:
  // A request may name a user again and again, which costs two processes for each kick and each
  // notification.
  void add(const std::string& user) {
    if (known_.insert(user).second) users_.push_back(user);
  }
  [[nodiscard]] bool has(const std::string& user) const { return known_.count(user) != 0; }
  // Ends the user's sessions on all servers but those of the mask.
  void kick(const std::string& user, int kept) {
    for (const TYPE server : ormel::RIGHTS) {
      if (server == NONE_TYPE || (kept & server) != 0) continue;
      if (kicked_.insert({server, user}).second) system::kick_all_connection(server, user.c_str());
    }
  }
  [[nodiscard]] const std::vector<std::string>& users() const { return users_; }
  // After the rights were stored.
  void end_grants(const UserPrivilege& before, const UserPrivilege& after) const {
    for (const std::string& user : users_)
      grant::on_rights(user, before.get(user), after.get(user));
  }

 private:
  std::vector<std::string> users_;
  std::set<std::string> known_;
  std::set<std::pair<TYPE, std::string>> kicked_;
};

// One "name|mask". Malformed text and names that are no users of the appliance are skipped.
void set_user(char* value, UserPrivilege& store, Changes& changes) {
  const char* mask_text = cut_pattern(value, MASK_MARK);
  if (!mask_text || !is_storable(value) || !getpwnam(value)) return;
  const std::string user = value;
  const int mask = to_int(mask_text);
  store.set(user, mask);
  changes.kick(user, mask);
  changes.add(user);
}

void unset_user(const std::string& user, UserPrivilege& store, Changes& changes) {
  if (user.empty() || changes.has(user)) return;
  store.unset(user);
  changes.kick(user, NONE_TYPE);
  changes.add(user);
  std::ignore = delete_privilege_user_block(user.c_str());  // most have none
}

int show_rights(const Request& request, JsonValue& reply) {
  UserPrivilege store;
  store.load();
  reply["total"] = store.get(request.number("lower", FIRST), request.number("upper", PAGE),
                             request.value("filter"), reply["data"].make_object());
  return NO_ERROR;
}

int set_rights(const Request& request, JsonValue&) {
  UserPrivilege store;
  store.load();
  const UserPrivilege before = store;
  Changes changes;
  for (char* value : request.values("user")) set_user(value, store, changes);
  system::set_privilege_event_log(changes.users());
  store.save();
  changes.end_grants(before, store);
  return NO_ERROR;
}

int unset_rights(const Request& request, JsonValue&) {
  UserPrivilege store;
  store.load();
  Changes changes;
  for (const char* user : request.values("user")) unset_user(user, store, changes);
  system::unset_privilege_event_log(changes.users());
  store.save();
  for (const std::string& user : changes.users()) grant::on_revocation(user);
  return NO_ERROR;
}

constexpr Route ROWS[] = {
    {"/ormel/privilege/get", ADMINISTRATOR, READS, json<show_rights>},
    {"/ormel/privilege/set", ADMINISTRATOR, CHANGES, json<set_rights>, MULTIPLE_VAR_MODE},
    {"/ormel/privilege/unset", ADMINISTRATOR, CHANGES, json<unset_rights>, MULTIPLE_VAR_MODE},
};

}  // namespace

const Routes RIGHTS{ROWS};

}  // namespace ormel::cgi::privilege
