#include "ormel/privilege.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <iterator>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

#include <fenro/host.h>

#include "ormel/handle.h"
#include "ormel/ovpn_profile.h"
#include "ormel/system_bus.h"
#include "ormel/system_process.h"
#include "ormel/types.h"

namespace ormel {

namespace {

constexpr const char* STORE = "/etc/config/vpn_user_ex.conf";
constexpr mode_t PRIVATE = 0600;

// The fields behind the name: the right that each stands for. Existing files have OpenVPN before L2TP.
constexpr TYPE FIELDS[] = {PPTP_SERVER_TYPE, OVPN_SERVER_TYPE, L2TP_SERVER_TYPE, NONE_TYPE, DROVIK_SERVER_TYPE};

struct PppServer {
  TYPE right;
  const char* name;
};

constexpr PppServer PPP_SERVERS[] = {{PPTP_SERVER_TYPE, "pptpd"}, {L2TP_SERVER_TYPE, "l2tpd"}};

std::string secret_lines(const std::string& user, int mask, const char* secret) {
  std::string lines;
  for (const PppServer& server : PPP_SERVERS) {
    if ((mask & server.right) != 0) lines += '"' + user + "\"\t" + server.name + '\t' + secret + "\t*\n";
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
  for (const TYPE right : FIELDS) line += (mask & right) != 0 ? ":1" : ":0";
  return line + '\n';
}

struct Target {
  const char* path;
  std::string (*lines)(const std::string& user, int mask);
};

constexpr Target TARGETS[] = {
    {"/etc/ppp/pap-secrets", pap_lines}, {"/etc/ppp/chap-secrets", chap_lines}, {STORE, store_line}};

// A file that is written under a name of its own and put in the place of its target, or goes with this object.
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
    // The platform may have made the file already, to keep its name.
    fd_ = Fd{open(temporary_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, PRIVATE)};
    return fd_ && fchmod(fd_.get(), PRIVATE) == 0;
  }
  // All of it is on the disk.
  [[nodiscard]] bool write(const std::string& content) const {
    return system::write_all(fd_.get(), content) && fsync(fd_.get()) == 0;
  }
  void put_in_place() const {
    std::ignore = std::rename(temporary_.c_str(), target_.c_str());  // readers keep the old one then
  }

 private:
  std::string target_;
  std::string temporary_;
  Fd fd_;
};

// A name with a line break would make lines of its own, and so rights of anybody's.
bool one_line(const std::string& user) {
  return user.find('\n') == std::string::npos;
}

std::string content_of(const Target& target, const PrivilegeStorage& storage) {
  std::string content;
  for (const auto& [user, mask] : storage) {
    if (one_line(user)) content += target.lines(user, mask);
  }
  return content;
}

// The mask that the fields of a line behind the name say, each a number; those that are missing count as 0.
int mask_of(std::string fields) {
  std::replace(fields.begin(), fields.end(), ':', ' ');
  int mask = NONE_TYPE;
  const char* at = fields.c_str();
  for (const TYPE right : FIELDS) {
    char* end = nullptr;
    if (std::strtol(at, &end, 10) != 0) mask |= right;
    if (end == at) break;
    at = end;
  }
  return mask;
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
  if (!option::read_file((root + STORE).c_str(), content)) return;
  for (std::string_view rest = content; !rest.empty();) {
    const std::string_view line = rest.substr(0, rest.find('\n'));
    rest.remove_prefix(std::min(line.size() + 1, rest.size()));
    const size_t colon = line.find(':');
    if (colon == std::string_view::npos) continue;
    storage[std::string(line.substr(0, colon))] = mask_of(std::string(line.substr(colon + 1)));
  }
}

void save_privileges(const std::string& root, const PrivilegeStorage& storage) {
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
