#include "daemons/mschap/accounts.h"

#include <tuple>

#include "base/file.h"
#include "base/lines.h"

namespace fenro::mschap {
namespace {

// Removes `word` and the blanks after it from the front of the line; false if they are missing.
bool take(std::string_view& line, const std::string& word) {
  if (!line.starts_with(word)) return false;
  const std::string_view rest = line.substr(word.size());
  const std::size_t blanks = rest.find_first_not_of(BLANKS);
  if (blanks == 0 || blanks == std::string_view::npos) return false;
  line = rest.substr(blanks);
  return true;
}

std::string quoted(std::string_view word) {
  return "\"" + std::string{word} + "\"";
}

std::string_view take_field(std::string_view& line) {
  return take_until(line, ':');
}

}  // namespace

bool find_secret(std::string_view secrets, std::string_view user, std::string_view server,
                 std::string& secret) {
  while (!secrets.empty()) {
    std::string_view line = take_line(secrets);
    if (!take(line, quoted(user))) continue;
    if (!take(line, std::string{server}) && !take(line, quoted(server))) continue;
    secret = line.substr(0, line.find_first_of(BLANKS));
    if (secret.size() > 1 && secret.front() == '"' && secret.back() == '"')
      secret = secret.substr(1, secret.size() - 2);
    return !secret.empty();
  }
  return false;
}

bool find_hash(std::string_view table, std::string_view user, NtHash& out) {
  while (!table.empty()) {
    std::string_view line = take_line(table);
    if (take_field(line) != user) continue;
    std::ignore = take_field(line);  // the user's number
    std::ignore = take_field(line);  // the older hash, of no use
    if (!parse_hex(take_field(line), out)) return false;
    return take_field(line).find('D') == std::string_view::npos;
  }
  return false;
}

bool account_hash(const char* path, std::string_view user, std::string_view server, NtHash& out) {
  std::string secrets;
  std::string secret;
  if (user.empty() || read_file(path, secrets) != 0) return false;
  if (!find_secret(secrets, user, server, secret)) return false;
  if (!secret.starts_with('&')) return nt_hash(secret, out);

  std::string table;
  return read_file(secret.c_str() + 1, table) == 0 && find_hash(table, user, out);
}

}  // namespace fenro::mschap
