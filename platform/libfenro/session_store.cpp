#include "libfenro/session_store.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <tuple>
#include <unistd.h>

#include "base/account.h"
#include "base/file.h"
#include "base/handle.h"
#include "base/random_name.h"
#include "libfenro/ini.h"
#include "libfenro/paths.h"
#include "libfenro/user.h"

namespace fenro {
namespace {

constexpr std::size_t SID_LENGTH = sizeof(_session::sid) - 1;
constexpr std::time_t CLOCK_SLACK =
    60;  // a file system's stamps and a corrected clock may lie this far ahead
constexpr int ATTEMPTS = 16;

constexpr std::string_view USER_KEY = "user";
constexpr std::string_view UID_KEY = "uid";
constexpr std::string_view IP_KEY = "ip";
constexpr std::string_view HOST_IP_KEY = "host_ip";
constexpr std::string_view CREATED_KEY = "created";

bool is_sid(const char* sid) {
  const std::string_view text =
      sid ? std::string_view{sid, strnlen(sid, SID_LENGTH + 1)} : std::string_view{};
  return text.size() == SID_LENGTH &&
         text.find_first_not_of(NAME_CHARACTERS) == std::string_view::npos;
}

// A text of the session's file; false when it is missing or does not fit.
template <std::size_t Size>
bool copy_text(std::string_view file, std::string_view key, char (&out)[Size]) {
  const auto value = ini::find(file, {}, key);
  if (!value || value->size() >= Size) return false;
  std::memset(out, 0, Size);
  std::memcpy(out, value->data(), value->size());
  return true;
}

template <typename Number>
bool copy_number(std::string_view file, std::string_view key, Number& out) {
  const std::string_view value = ini::find(file, {}, key).value_or("");
  const auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), out);
  return error == std::errc{} && end == value.data() + value.size();
}

bool within(std::time_t since, std::time_t limit, std::time_t now) {
  return since <= now + CLOCK_SLACK && now - since < limit;
}

// Only a file that root or we ourselves put there counts.
bool is_ours(const struct stat& info) {
  return S_ISREG(info.st_mode) && (info.st_uid == 0 || info.st_uid == geteuid());
}

bool fits(const std::string& text, std::size_t size) {
  return text.size() < size && ini::first_line(text).size() == text.size();
}

std::string line(std::string_view key, std::string_view value) {
  return std::string(key).append(" = ").append(value).append("\n");
}

}  // namespace

SessionStore::SessionStore() : folder_(paths::SESSIONS), locked_(is_locked) {}

std::string SessionStore::path_of(const char* sid) const {
  return folder_ + "/" + sid;
}

std::string SessionStore::create(const std::string& user, const std::string& ip,
                                 const std::string& host_ip) const {
  constexpr _session LIMITS{};
  const auto account = find_user(user.c_str());
  if (!account || !fits(user, sizeof LIMITS.user) || !fits(ip, sizeof LIMITS.ip)) return {};
  if (!fits(host_ip, sizeof LIMITS.host_ip) || !make_private_folder(folder_)) return {};
  std::ignore = list();  // removes what has run out

  const std::string content = line(USER_KEY, user) + line(UID_KEY, std::to_string(account->uid)) +
                              line(IP_KEY, ip) + line(HOST_IP_KEY, host_ip) +
                              line(CREATED_KEY, std::to_string(std::time(nullptr)));
  for (int i = 0; i < ATTEMPTS; ++i) {
    std::string sid(SID_LENGTH, '\0');
    if (!random_name(sid)) return {};
    const Fd fd{
        open(path_of(sid.c_str()).c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, PRIVATE_FILE)};
    if (!fd && errno == EEXIST) continue;
    if (fd && write_all(fd.get(), content)) {
      end_oldest(user, sid);
      return sid;
    }
    if (fd) end(sid.c_str());
    return {};
  }
  return {};
}

bool SessionStore::read(const char* sid, _session& session) const {
  const std::string path = path_of(sid);
  struct stat info {};
  if (lstat(path.c_str(), &info) != 0) return false;
  session.touched = info.st_mtime;
  std::string text;
  if (!is_ours(info) || read_file(path.c_str(), text) != 0) return false;
  const std::string_view file = text;
  long created = 0;
  const bool whole =
      copy_text(file, USER_KEY, session.user) && copy_number(file, UID_KEY, session.uid) &&
      copy_text(file, IP_KEY, session.ip) && copy_text(file, HOST_IP_KEY, session.host_ip) &&
      copy_number(file, CREATED_KEY, created);
  std::memcpy(session.sid, sid, SID_LENGTH);
  const std::time_t now = std::time(nullptr);
  return whole && within(created, AGE_LIMIT, now) && within(session.touched, IDLE_LIMIT, now);
}

std::optional<_session> SessionStore::find(const char* sid, bool touch) const {
  if (!is_sid(sid)) return {};
  _session session{};
  if (!read(sid, session)) {
    // Not merely for being unreadable: it may be one that another process is writing at this
    // moment.
    if (session.touched != 0 && !within(session.touched, IDLE_LIMIT, std::time(nullptr))) end(sid);
    return {};
  }
  // A removed user's session is worth nothing, nor is it to one who later gets the same name.
  const auto account = find_user(session.user);
  if (!account || static_cast<int>(account->uid) != session.uid) return {};
  // Once a minute for a session in use, as its time of last use shows: a directory's account costs
  // a network query.
  if (std::time(nullptr) / ACCOUNT_CHECK != session.touched / ACCOUNT_CHECK &&
      locked_(session.user)) {
    end(sid);
    return {};
  }
  if (!touch) return session;
  if (utimensat(AT_FDCWD, path_of(sid).c_str(), nullptr, AT_SYMLINK_NOFOLLOW) != 0) return {};
  session.touched = std::time(nullptr);
  return session;
}

// Sorted by creation time; the new session stays, whatever the clock says.
void SessionStore::end_oldest(std::string_view user, std::string_view newest) const {
  std::vector<std::pair<long, std::string>> others;
  const Dir folder{opendir(folder_.c_str())};
  while (const dirent* entry = folder ? readdir(folder.get()) : nullptr) {
    std::string text;
    long created = 0;
    if (!is_sid(entry->d_name) || entry->d_name == newest) continue;
    if (read_file(path_of(entry->d_name).c_str(), text) != 0) continue;
    if (ini::find(text, {}, USER_KEY) != user || !copy_number(text, CREATED_KEY, created)) continue;
    others.emplace_back(created, entry->d_name);
  }
  std::sort(others.begin(), others.end());
  for (std::size_t i = 0; i + USER_LIMIT <= others.size(); ++i) end(others[i].second.c_str());
}

std::vector<_session> SessionStore::list() const {
  std::vector<_session> sessions;
  const Dir folder{opendir(folder_.c_str())};
  while (const dirent* entry = folder ? readdir(folder.get()) : nullptr)
    if (const auto session = find(entry->d_name, false)) sessions.push_back(*session);
  std::sort(sessions.begin(), sessions.end(),
            [](const _session& a, const _session& b) { return std::strcmp(a.sid, b.sid) < 0; });
  return sessions;
}

bool SessionStore::end(const char* sid) const {
  return is_sid(sid) && unlink(path_of(sid).c_str()) == 0;
}

// By account, since a directory may take several spellings of a name.
std::size_t SessionStore::end_others(const char* sid) const {
  const std::optional<_session> own = find(sid, false);
  std::size_t count = 0;
  for (const _session& session : own ? list() : std::vector<_session>{}) {
    if (session.uid == own->uid && std::strcmp(session.sid, sid) != 0 && end(session.sid)) ++count;
  }
  return count;
}

std::size_t SessionStore::end_user(std::string_view user) const {
  std::size_t ended = 0;
  const Dir folder{opendir(folder_.c_str())};
  while (const dirent* entry = folder ? readdir(folder.get()) : nullptr) {
    std::string text;
    if (!is_sid(entry->d_name) || read_file(path_of(entry->d_name).c_str(), text) != 0) continue;
    if (ini::find(text, {}, USER_KEY) == user && end(entry->d_name)) ++ended;
  }
  return ended;
}

}  // namespace fenro

int auth_get_session(const char* sid, int touch, struct _session* session) {
  const auto found = fenro::SessionStore{}.find(sid, touch != 0);
  if (found && session) *session = *found;
  return found ? 0 : -1;
}
