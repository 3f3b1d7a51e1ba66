#include "libfenro/user.h"

#include <algorithm>
#include <array>
#include <ctime>
#include <grp.h>
#include <pwd.h>
#include <tuple>

#include <fenro/auth.h>

#include "base/account.h"
#include "base/c_memory.h"
#include "base/file.h"
#include "base/handle.h"
#include "base/lines.h"
#include "libfenro/paths.h"

namespace fenro {
namespace {

constexpr int FIRST_GROUPS = 64;
constexpr int LAST_GROUPS = 65536;
constexpr std::string_view NO_NAMES = "+-#";  // begin lines of such files that are no account
constexpr std::string_view DOMAIN_MARKS = "\\@+";
constexpr std::array<std::string_view, 2> DIRECTORIES{"ldap", "sss"};
constexpr std::array<std::string_view, 2> NO_SHELLS{"/nologin", "/false"};
constexpr std::string_view LEAST_KEY = "UID_MIN";
constexpr uid_t LEAST_PERSON = 1000;

// What a request asks for again and again. Within one tick of the clock the answer is the same.
struct Recent {
  std::timespec tick{};
  std::string nsswitch{};
  std::string name{};  // of the user who was asked for last
  std::optional<User> user{};
};

Recent& recent() {
  thread_local Recent last;
  std::timespec now{};
  clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  if (now.tv_nsec == last.tick.tv_nsec && now.tv_sec == last.tick.tv_sec) return last;
  last = {.tick = now};
  std::ignore = read_file(paths::NSSWITCH, last.nsswitch);  // the usual order holds without it
  return last;
}

// The rest of the line of that name in a file of the form of /etc/passwd. Empty where the name
// service would not ask the file first, or the file has no such line.
std::string local_line(const char* path, std::string_view database, std::string_view name) {
  std::string text;
  if (NO_NAMES.find(name.front()) != std::string_view::npos) return {};
  if (!asks_files_first(recent().nsswitch, database) || read_file(path, text) != 0) return {};
  return std::string(line_of(text, name));
}

std::optional<User> local_user(std::string_view name) {
  const std::string account = local_line(paths::PASSWD, "passwd:", name);
  std::string_view line = account;
  User user{};
  take_until(line, ':');  // the password
  if (!parse_number(take_until(line, ':'), user.uid)) return {};
  if (!parse_number(take_until(line, ':'), user.gid)) return {};
  return user;
}

bool is_in_local_group(std::string_view user, gid_t primary, std::string_view name) {
  const std::string group = local_line(paths::GROUP, "group:", name);
  std::string_view line = group;
  gid_t number = 0;
  take_until(line, ':');  // the password
  if (!parse_number(take_until(line, ':'), number)) return false;
  if (number == primary) return true;
  while (!line.empty()) {
    if (take_until(line, ',') == user) return true;
  }
  return false;
}

bool is_listed(const group& group, std::string_view user) {
  for (char** member = group.gr_mem; *member; ++member)
    if (*member == user) return true;
  return false;
}

bool belongs(const char* user, const char* group_name) {
  const auto account = find_user(user);
  if (!account) return false;
  if (is_in_local_group(user, account->gid, group_name)) return true;
  std::vector<char> buffer;
  const auto wanted =
      look_up<group>(buffer, [group_name](group* g, char* text, std::size_t size, group** found) {
        return getgrnam_r(group_name, g, text, size, found);
      });
  if (!wanted) return false;
  if (wanted->gr_gid == account->gid || is_listed(*wanted, user)) return true;
  // Directories know groups that do not list their members.
  for (int room = FIRST_GROUPS; room <= LAST_GROUPS; room *= 2) {
    std::vector<gid_t> groups(static_cast<std::size_t>(room));
    int count = room;
    if (getgrouplist(user, account->gid, groups.data(), &count) < 0) continue;
    groups.resize(static_cast<std::size_t>(count));
    return std::find(groups.begin(), groups.end(), wanted->gr_gid) != groups.end();
  }
  return false;
}

class Enumeration {
 public:
  Enumeration() { setpwent(); }
  Enumeration(const Enumeration&) = delete;
  Enumeration& operator=(const Enumeration&) = delete;
  ~Enumeration() { endpwent(); }
  [[nodiscard]] const char* next() {
    const passwd* const entry = getpwent();
    return entry ? entry->pw_name : nullptr;
  }
};

void sort_unique(std::vector<std::string>& names) {
  std::sort(names.begin(), names.end());
  names.erase(std::unique(names.begin(), names.end()), names.end());
}

template <typename Wanted>
std::vector<std::string> names_of_file(const char* passwd, Wanted wanted) {
  std::vector<std::string> names;
  const File file{std::fopen(passwd, "re")};
  while (const struct passwd* entry = file ? fgetpwent(file.get()) : nullptr) {
    if (wanted(*entry)) names.emplace_back(entry->pw_name);
  }
  sort_unique(names);
  return names;
}

// One page as the array of fixed rows that the callers take over and free.
template <std::size_t Width>
int hand_out(Source source, char (**list)[Width], int lower, int upper, const char* filter,
             int* total) {
  using Row = char[Width];
  if (!list || !total) return -1;
  *list = nullptr;
  std::vector<std::string> names = users_of(source);
  // A name cut to fit would be another user's.
  std::erase_if(names, [](const std::string& name) { return name.size() >= Width; });
  const auto page = page_of(std::move(names), lower, upper, filter ? filter : "", *total);
  if (page.empty()) return 0;

  auto rows = c_array<Row>(page.size());
  if (!rows) return -1;
  for (std::size_t i = 0; i < page.size(); ++i) std::copy(page[i].begin(), page[i].end(), rows[i]);
  *list = rows.release();
  return static_cast<int>(page.size());
}

}  // namespace

// The host's own files are read here where the name service reads them first anyway: its sockets
// and plug-ins take ten times as long, and each request of the web interface asks for its user.
std::optional<User> find_user(const char* name) {
  if (!name || !*name) return {};
  Recent& last = recent();
  if (last.name == name) return last.user;
  last.name = name;
  last.user = local_user(name);
  if (last.user) return last.user;

  std::vector<char> buffer;
  const auto record =
      look_up<passwd>(buffer, [name](passwd* p, char* text, std::size_t size, passwd** found) {
        return getpwnam_r(name, p, text, size, found);
      });
  if (record) last.user = User{record->pw_uid, record->pw_gid};
  return last.user;
}

Source source_of(const std::string& name, const std::vector<std::string>& local) {
  if (std::binary_search(local.begin(), local.end(), name)) return Source::Local;
  return name.find_first_of(DOMAIN_MARKS) == std::string::npos ? Source::Ldap : Source::Domain;
}

std::vector<std::string> users_of_file(const char* passwd) {
  return names_of_file(passwd, [](const struct passwd&) { return true; });
}

std::vector<std::string> people_of_file(const char* passwd, uid_t least) {
  return names_of_file(passwd, [least](const struct passwd& entry) {
    const std::string_view shell = entry.pw_shell ? entry.pw_shell : "";
    return entry.pw_uid >= least && std::ranges::none_of(NO_SHELLS, [&](std::string_view end) {
             return shell.ends_with(end);
           });
  });
}

uid_t least_person(std::string_view login_defs) {
  while (!login_defs.empty()) {
    std::string_view line = take_line(login_defs);
    uid_t least = 0;
    if (take_word(line) == LEAST_KEY && parse_number(take_word(line, SPACE), least)) return least;
  }
  return LEAST_PERSON;
}

std::vector<std::string> users_of(Source source) {
  if (source == Source::Local) {
    std::string settings;
    std::ignore = read_file(paths::LOGIN_DEFS, settings);  // the usual number holds without it
    return people_of_file(paths::PASSWD, least_person(settings));
  }
  const std::vector<std::string> local = users_of_file(paths::PASSWD);
  std::vector<std::string> names;
  Enumeration all;
  while (const char* name = all.next())
    if (source_of(name, local) == source) names.emplace_back(name);
  sort_unique(names);
  return names;
}

std::string_view sources_of(std::string_view nsswitch, std::string_view database) {
  while (!nsswitch.empty()) {
    std::string_view line = take_line(nsswitch);
    line = line.substr(0, line.find('#'));
    skip_blanks(line, SPACE);
    if (!line.starts_with(database)) continue;
    line.remove_prefix(database.size());
    return line;
  }
  return {};
}

bool asks_directory(std::string_view nsswitch) {
  std::string_view sources = sources_of(nsswitch, "passwd:");
  while (!sources.empty())
    if (std::ranges::find(DIRECTORIES, take_word(sources, SPACE)) != DIRECTORIES.end()) return true;
  return false;
}

bool asks_files_first(std::string_view nsswitch, std::string_view database) {
  std::string_view sources = sources_of(nsswitch, database);
  const std::string_view first = take_word(sources, SPACE);
  if (first.empty()) return true;
  return first == "files" && !take_word(sources, SPACE).starts_with('[');
}

std::string_view line_of(std::string_view text, std::string_view name) {
  while (!text.empty()) {
    std::string_view line = take_line(text);
    if (take_until(line, ':') == name) return line;
  }
  return {};
}

std::vector<std::string> page_of(std::vector<std::string> names, int lower, int upper,
                                 std::string_view filter, int& total) {
  std::erase_if(
      names, [filter](const std::string& name) { return name.find(filter) == std::string::npos; });
  total = static_cast<int>(names.size());
  const int first = std::clamp(lower, 0, total);
  const int last = std::clamp(upper, first - 1, total - 1);
  return {names.begin() + first, names.begin() + (last + 1)};
}

}  // namespace fenro

int User_Belongs_To_Group(const char* user, const char* group) {
  return user && group && *group && fenro::belongs(user, group) ? 1 : 0;
}

int Get_Local_User_List_V2(char (**list)[33], int lower, int upper, const char* filter,
                           int* total) {
  return fenro::hand_out(fenro::Source::Local, list, lower, upper, filter, total);
}

int Get_LDAP_User_List_V2(char (**list)[33], int lower, int upper, const char* filter, int* total) {
  return fenro::hand_out(fenro::Source::Ldap, list, lower, upper, filter, total);
}

int Get_Expand_Domain_User_List_V2(char (**list)[209], int lower, int upper, const char* filter,
                                   int* total, int /*a*/, int /*b*/, int /*c*/) {
  return fenro::hand_out(fenro::Source::Domain, list, lower, upper, filter, total);
}

int Is_LDAP_Enable(void) {
  std::string text;
  return fenro::read_file(fenro::paths::NSSWITCH, text) == 0 && fenro::asks_directory(text) ? 1 : 0;
}
