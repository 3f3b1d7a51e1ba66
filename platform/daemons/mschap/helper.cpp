#include "daemons/mschap/helper.h"

#include <map>
#include <nettle/memops.h>

#include "base/base64.h"
#include "base/lines.h"
#include "daemons/mschap/accounts.h"

namespace fenro::mschap {
namespace {

using Fields = std::map<std::string, std::string, std::less<>>;

constexpr std::string_view ADMITTED = "Authenticated: Yes\n";

// Returns false for a malformed line or an unterminated request.
bool parse(std::string_view text, Fields& fields) {
  while (!text.empty()) {
    const std::string_view line = take_line(text);
    if (line == ".") return true;
    const std::size_t colon = line.find(": ");
    if (colon == std::string_view::npos) return false;
    const bool encoded = colon > 0 && line[colon - 1] == ':';
    std::string value{line.substr(colon + 2)};
    if (encoded && !parse_base64(line.substr(colon + 2), value)) return false;
    if (value.find('\0') != std::string::npos || value.find('\n') != std::string::npos)
      return false;
    fields.insert_or_assign(std::string{line.substr(0, encoded ? colon - 1 : colon)},
                            std::move(value));
  }
  return false;
}

// The plugin parts a name at its backslash; the accounts keep it whole.
std::string user_of(const Fields& fields) {
  const auto value = [&](std::string_view name) {
    const auto field = fields.find(name);
    return field == fields.end() ? std::string{} : field->second;
  };
  const std::string domain = value("NT-Domain");
  const std::string user =
      fields.contains("Full-Username") ? value("Full-Username") : value("Username");
  return domain.empty() ? user : domain + "\\" + user;
}

}  // namespace

const char* const REFUSED = "Authenticated: No\n.\n";

std::string user_of(std::string_view lines) {
  Fields fields;
  return parse(lines, fields) ? user_of(fields) : std::string{};
}

bool admits(std::string_view answer) {
  return answer.starts_with(ADMITTED);
}

std::string judge(std::string_view lines, const char* secrets_path, std::string_view server) {
  Fields fields;
  Challenge challenge{};
  Response response{};
  if (!parse(lines, fields)) return REFUSED;
  if (!parse_hex(fields["LANMAN-Challenge"], challenge) ||
      !parse_hex(fields["NT-response"], response))
    return REFUSED;

  NtHash hash{};
  Response expected{};
  if (!account_hash(secrets_path, user_of(fields), server, hash)) return REFUSED;
  expected_response(hash, challenge, expected);
  if (memeql_sec(expected.data(), response.data(), response.size()) == 0) return REFUSED;
  return "Authenticated: Yes\nUser-session-key: " + to_hex(session_key(hash)) + "\n.\n";
}

}  // namespace fenro::mschap
