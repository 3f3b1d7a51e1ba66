#include "daemons/mschap/password_table.h"

#include <cctype>
#include <cstdio>
#include <ctime>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include "base/file.h"
#include "base/handle.h"
#include "base/lines.h"
#include "daemons/mschap/nt_hash.h"
#include "libfenro/user.h"

namespace fenro::mschap {
namespace {

constexpr const char* LOCK_FOLDER = "/run/fenro/passwords";
constexpr const char* LOCK = "/run/fenro/passwords/lock";
constexpr std::string_view NO_LM_HASH = "XXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXX";

std::string upper_hex(const NtHash& hash) {
  std::string text = to_hex(hash);
  for (char& c : text) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return text;
}

bool can_be_in_line(std::string_view user) {
  return !user.empty() &&
         user.find_first_of(std::string_view(":\r\n\0", 4)) == std::string_view::npos;
}

}  // namespace

std::string with_password(std::string_view table, std::string_view user, unsigned uid,
                          std::string_view password, long now) {
  NtHash hash{};
  if (!can_be_in_line(user) || !nt_hash(password, hash)) return {};
  char change[32];
  std::snprintf(change, sizeof change, "LCT-%08lX", static_cast<unsigned long>(now));
  const std::string begin = std::string{user} + ':';
  const std::string secret = begin + std::to_string(uid) + ':' + std::string{NO_LM_HASH} + ':' +
                             upper_hex(hash) + ":[U          ]:";
  std::string out;
  bool found = false;
  while (!table.empty()) {
    const std::string_view line = take_line(table);
    if (!line.starts_with(begin)) {
      out += std::string{line} + '\n';
    } else if (!found && line.starts_with(secret)) {
      out += std::string{line} + '\n';  // keeps the time at which it was last changed
      found = true;
    }
  }
  if (!found) out += secret + change + ":\n";
  return out;
}

bool store_password(const std::string& user, std::string_view password, const char* path) {
  const auto account = find_user(user.c_str());
  if (!account || !make_private_folder(LOCK_FOLDER)) return false;
  const Fd lock{
      open(LOCK, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, S_IRUSR | S_IWUSR)};
  if (!lock || flock(lock.get(), LOCK_EX) != 0) return false;
  std::string table;
  const int rc = read_file(path, table);
  if (rc != 0 && rc != ENOENT) return false;
  const std::string text = with_password(table, user, account->uid, password, std::time(nullptr));
  return !text.empty() && (text == table || replace_file(path, text));
}

}  // namespace fenro::mschap
