#include "ormel/actions/privilege.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <iterator>
#include <string_view>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fenro/host.h>

#include "base/lines.h"
#include "base/privilege_line.h"
#include "base/types.h"
#include "ormel/base/file.h"
#include "ormel/base/handle.h"
#include "ormel/host/bus.h"

namespace ormel {

namespace {

constexpr const char* STORE = "/etc/config/vpn_user_ex.conf";
constexpr mode_t OF_OTHERS = 0077;
constexpr size_t RANDOM_LENGTH = 6;  // of the ending that the platform makes
constexpr int ATTEMPTS = 100;

struct PppServer {
  TYPE right;
  const char* name;
};

constexpr PppServer PPP_SERVERS[] = {{PPTP_SERVER_TYPE, "pptpd"}, {L2TP_SERVER_TYPE, "l2tpd"}};

std::string secret_lines(const std::string& user, int mask, const char* secret) {
  std::string lines;
  for (const PppServer& server : PPP_SERVERS) {
    if ((mask & server.right) != 0)
      lines += '"' + user + "\"\t" + server.name + '\t' + secret + "\t*\n";
  }
  return lines;
}

std::string pap_lines(const std::string& user, int mask) {
  return secret_lines(user, mask, "@login");
}

std::string chap_lines(const std::string& user, int mask) {
  return secret_lines(user, mask, "&/etc/config/smbpasswd");
}

std::string store_line(const std::string& user, int mask) {
  std::string line = user;
  for (const TYPE right : RIGHTS) line += (mask & right) != 0 ? ":1" : ":0";
  return line + '\n';
}

struct Target {
  const char* path;
  std::string (*lines)(const std::string& user, int mask);
};

constexpr Target TARGETS[] = {{"/etc/ppp/pap-secrets", pap_lines},
                              {"/etc/ppp/chap-secrets", chap_lines},
                              {STORE, store_line}};

// The lock of a temporary file says that its writer lives; it ends with the process, however that
// ends.
bool claim(int fd) {
  struct stat status {};
  return flock(fd, LOCK_EX | LOCK_NB) == 0 && fstat(fd, &status) == 0 && status.st_nlink > 0;
}

// Whether random characters made this ending: a word or a date that somebody appended to the name
// has but one kind.
bool is_random(std::string_view ending) {
  const auto kind = [](unsigned char c) {
    return std::isdigit(c) != 0 ? 1 : std::islower(c) != 0 ? 2 : 4;
  };
  int kinds = 0;
  for (const char c : ending) {
    if (std::isalnum(static_cast<unsigned char>(c)) == 0) return false;
    kinds |= kind(static_cast<unsigned char>(c));
  }
  return ending.size() == RANDOM_LENGTH && (kinds & (kinds - 1)) != 0;
}

// Takes away what a run that was killed left beside the target: the names and rights of all users.
void remove_stale(const std::string& target) {
  const size_t slash = target.rfind('/');
  const std::string start = target.substr(slash + 1) + '-';
  const Dir folder{opendir(target.substr(0, slash).c_str())};
  while (const dirent* const entry = folder ? readdir(folder.get()) : nullptr) {
    const std::string_view name = entry->d_name;
    if (!name.starts_with(start) || !is_random(name.substr(start.size()))) continue;
    const Fd fd{
        openat(dirfd(folder.get()), entry->d_name, O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC)};
    struct stat status {};
    if (fd && fstat(fd.get(), &status) == 0 && S_ISREG(status.st_mode) &&
        status.st_uid == geteuid() && (status.st_mode & OF_OTHERS) == 0 && claim(fd.get()))
      unlinkat(dirfd(folder.get()), entry->d_name, 0);
  }
}

// A file that is written under a name of its own and put in the place of its target, or goes with
// this object.
class Replacement {
 public:
  Replacement() = default;
  Replacement(const Replacement&) = delete;
  Replacement& operator=(const Replacement&) = delete;
  ~Replacement() {
    if (fd_) unlink(temporary_.c_str());  // there no more once it is in place
  }

  [[nodiscard]] bool open_beside(const std::string& target) {
    target_ = target;
    temporary_ = target_ + "-XXXXXX";
    if (vantri_mktmpname(temporary_.data()) != 0) return false;
    for (int i = 0; i < ATTEMPTS; ++i) {
      // The platform may have made the file already, to keep its name.
      fd_ = Fd{open(temporary_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC,
                    fenro::PRIVATE_FILE)};
      if (!fd_ || claim(fd_.get()))
        break;  // else another run took it for stale before we had its lock
    }
    return fd_ && fchmod(fd_.get(), fenro::PRIVATE_FILE) == 0;
  }
  // All of it is on the disk.
  [[nodiscard]] bool write(const std::string& content) const {
    return system::write_all(fd_.get(), content) && fsync(fd_.get()) == 0;
  }
  void put_in_place() const {
    std::ignore =
        std::rename(temporary_.c_str(), target_.c_str());  // readers keep the old one then
  }

 private:
  std::string target_;
  std::string temporary_;
  Fd fd_;
};

std::string content_of(const Target& target, const PrivilegeStorage& storage) {
  std::string content;
  for (const auto& [user, mask] : storage) {
    // A name with a line break would add lines, and so rights of other users.
    if (user.find('\n') == std::string::npos) content += target.lines(user, mask);
  }
  return content;
}

bool contains(const std::string& user, const std::string& filter) {
  return std::search(user.begin(), user.end(), filter.begin(), filter.end(),
                     [](char a, char b) { return tolower(a, b); }) != user.end();
}

}  // namespace

bool tolower(char a, char b) {
  return std::tolower(static_cast<unsigned char>(a)) == std::tolower(static_cast<unsigned char>(b));
}

void load_privileges(const std::string& root, PrivilegeStorage& storage) {
  std::string content;
  if (!system::read_file((root + STORE).c_str(), content)) return;
  for (std::string_view rest = content; !rest.empty();) {
    std::string_view fields = fenro::take_line(rest);
    if (fields.find(':') == std::string_view::npos) continue;
    const std::string_view user = fenro::take_until(fields, ':');
    storage[std::string(user)] = rights_in(fields);
  }
}

void save_privileges(const std::string& root, const PrivilegeStorage& storage) {
  for (const Target& target : TARGETS) remove_stale(root + target.path);
  std::array<Replacement, std::size(TARGETS)> files;
  for (size_t i = 0; i < files.size(); ++i) {
    if (!files[i].open_beside(root + TARGETS[i].path)) return;
  }
  // All are written before the first is put in place: a full disk leaves the old ones.
  for (size_t i = 0; i < files.size(); ++i) {
    if (!files[i].write(content_of(TARGETS[i], storage))) return;
  }
  for (const Replacement& file : files) file.put_in_place();
}

int UserPrivilege::get(const std::string& user) const {
  const auto found = storage.find(user);
  return found == storage.end() ? static_cast<int>(NONE_TYPE) : found->second;
}

int UserPrivilege::get(int start, int count, const std::string& filter, JsonValue& out) const {
  for (const auto& [user, mask] : storage) {
    if (count <= 0) break;
    if (!filter.empty() && !contains(user, filter)) continue;
    if (start > 0) {
      --start;
    } else {
      out[system::valid_utf8(user)] = mask;  // a directory may name its accounts in other bytes
      --count;
    }
  }
  return static_cast<int>(storage.size());
}

}  // namespace ormel
