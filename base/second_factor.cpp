#include "base/second_factor.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <ctime>
#include <fcntl.h>
#include <iterator>
#include <map>
#include <optional>
#include <pwd.h>
#include <set>
#include <sys/file.h>
#include <thread>
#include <unistd.h>
#include <utility>

#include "base/base64.h"
#include "base/file.h"
#include "base/handle.h"
#include "base/lines.h"

namespace fenro {
namespace {

using State = SecondFactor::State;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr std::size_t LARGEST = std::size_t{4} << 20U;  // bytes of a file
constexpr auto LONGEST_WAIT = seconds(5);               // for the lock
constexpr auto PAUSE = milliseconds(5);

constexpr totp::Step WINDOW = 1;       // steps before and after the present one that count
constexpr totp::Step RECOGNISED = 20;  // steps that are recognised as late

// A recovery code is three groups of four letters of base32: ABCD-EFGH-IJKL, 60 bits.
constexpr std::size_t GROUP = 4;
constexpr std::size_t GROUPS = 3;
constexpr std::size_t RECOVERY_LENGTH = GROUPS * GROUP + GROUPS - 1;
constexpr std::size_t DIGEST_LENGTH = 40;
constexpr std::string_view CHALLENGE = "SCRV1:";

struct RefusalRow {
  FactorRefusal refusal;
  const char* reason;
};
constexpr RefusalRow REFUSALS[] = {
    {FactorRefusal::Absent, "no second factor code after the password (code-missing)"},
    {FactorRefusal::Wrong, "wrong second factor code (code-wrong)"},
    {FactorRefusal::Late, "second factor code of another time, the clocks differ (code-late)"},
    {FactorRefusal::Used, "second factor code that was used before (code-used)"},
    {FactorRefusal::NotSetUp, "the required second factor is not set up (code-not-set-up)"},
    {FactorRefusal::Damaged, "the user's second factor in totp.conf is damaged (code-damaged)"},
    {FactorRefusal::NotWritten, "totp.conf cannot be written (code-not-written)"},
    {FactorRefusal::NoLibrary, "libcrypto.so.3 cannot be loaded (code-not-computed)"},
};
constexpr int FIRST_STATUS = 101;

struct StateName {
  State state;
  std::string_view name;
};
constexpr StateName STATES[] = {{State::Off, "off"},
                                {State::Pending, "pending"},
                                {State::On, "on"},
                                {State::Damaged, "damaged"}};
constexpr std::string_view REQUIRED = "required";
constexpr std::string_view FREE = "free";

bool is_digest(std::string_view text) {
  return text.size() == DIGEST_LENGTH &&
         text.find_first_not_of("0123456789abcdef") == std::string_view::npos;
}

bool parse_digests(std::string_view text, std::vector<std::string>& out) {
  while (!text.empty()) out.emplace_back(take_until(text, ','));
  return out.size() <= RECOVERY_CODES && std::ranges::all_of(out, is_digest);
}

bool parse_state(std::string_view word, State& out) {
  const auto* const row =
      std::ranges::find_if(STATES, [&](const StateName& known) { return known.name == word; });
  if (row != std::end(STATES)) out = row->state;
  return row != std::end(STATES);
}

bool is_secret(std::string_view text) {
  std::string bytes;
  return totp::parse_base32(text, bytes) && bytes.size() == totp::SECRET_BYTES;
}

// The fields of a line after the name.
std::optional<SecondFactor> parse(std::string_view fields) {
  if (std::ranges::count(fields, ':') != 6) return {};
  SecondFactor factor;
  const bool known = parse_state(take_until(fields, ':'), factor.state);
  const std::string_view need = take_until(fields, ':');
  factor.required = need == REQUIRED;
  factor.secret = take_until(fields, ':');
  const bool whole = known && (factor.required || need == FREE) && factor.state != State::Damaged &&
                     (factor.state == State::Off || is_secret(factor.secret)) &&
                     parse_number(take_until(fields, ':'), factor.begun) &&
                     parse_number(take_until(fields, ':'), factor.used) &&
                     parse_number(take_until(fields, ':'), factor.misses) &&
                     parse_digests(fields, factor.recovery);
  if (!whole) return {};
  return factor;
}

std::string line_of(const std::string& name, const SecondFactor& factor) {
  std::string line = name + ':';
  line += name_of(factor.state);
  line += ':';
  line += factor.required ? REQUIRED : FREE;
  line += ':' + factor.secret + ':' + std::to_string(factor.begun) + ':' +
          std::to_string(factor.used) + ':' + std::to_string(factor.misses) + ':';
  for (std::size_t i = 0; i < factor.recovery.size(); ++i)
    line += (i == 0 ? "" : ",") + factor.recovery[i];
  return line + '\n';
}

// The fields after the name in each of its lines.
std::vector<std::string_view> fields_of(std::string_view text, std::string_view name) {
  std::vector<std::string_view> found;
  while (!text.empty()) {
    std::string_view line = take_line(text);
    if (take_until(line, ':') == name) found.push_back(line);
  }
  return found;
}

// The text with `line` in the place of those of the name.
std::string with_line(std::string_view text, std::string_view name, const std::string& line) {
  std::string out;
  while (!text.empty()) {
    const std::string_view old = take_line(text);
    if (old.substr(0, old.find(':')) == name) continue;
    out += old;
    out += '\n';
  }
  return out + line;
}

SecondFactor damaged() {
  SecondFactor factor;
  factor.state = State::Damaged;
  return factor;
}

// `failure` and `conf` come from reading the first file.
SecondFactor factor_in(int failure, std::string_view conf, const std::string& users_file,
                       std::string_view name) {
  const auto rows = fields_of(conf, name);
  if (failure == 0 && rows.size() == 1) return parse(rows.front()).value_or(damaged());
  std::string users;
  const bool readable = read_file(users_file.c_str(), users, LARGEST) == 0;
  return !rows.empty() || (readable && !fields_of(users, name).empty()) ? damaged()
                                                                        : SecondFactor{};
}

// By name, as the file has it; without damaged lines.
std::map<std::string, SecondFactor> factors_in(std::string_view conf) {
  std::map<std::string, SecondFactor> factors;
  while (!conf.empty()) {
    std::string_view line = take_line(conf);
    const std::string_view name = take_until(line, ':');
    if (const auto factor = parse(line)) factors.emplace(name, *factor);
  }
  return factors;
}

std::set<std::string> required_in(std::string_view conf) {
  std::set<std::string> names;
  for (const auto& [name, factor] : factors_in(conf)) {
    if (factor.required) names.insert(name);
  }
  return names;
}

SecondFactor restored(const SecondFactor& present, const SecondFactor& kept) {
  SecondFactor factor = present.state == State::On ? present : kept;
  factor.required = present.required || kept.required;
  return factor;
}

// A line belongs to an account, not to one spelling of its name: directories accept several.
std::string account_of(std::string_view user) {
  constexpr std::size_t LONGEST = std::size_t{64} << 10U;  // bytes of an account's record
  std::string typed{user};
  if (user.find('\0') != std::string_view::npos) return typed;
  passwd record{};
  passwd* found = nullptr;
  std::string buffer(LONGEST, '\0');
  const bool known =
      getpwnam_r(typed.c_str(), &record, buffer.data(), buffer.size(), &found) == 0 && found;
  return known ? record.pw_name : typed;
}

// An empty text removes the file.
bool store(const std::string& path, const std::string& text) {
  if (text.empty()) return unlink(path.c_str()) == 0 || errno == ENOENT;
  return replace_file(path, text, PRIVATE_FILE);
}

Fd locked(const std::string& path) {
  if (!make_private_folder(path.substr(0, path.rfind('/')))) return Fd{};
  Fd fd{open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, PRIVATE_FILE)};
  const auto end = std::chrono::steady_clock::now() + LONGEST_WAIT;
  while (fd && flock(fd.get(), LOCK_EX | LOCK_NB) != 0) {
    if (std::chrono::steady_clock::now() >= end) return Fd{};
    std::this_thread::sleep_for(PAUSE);
  }
  return fd;
}

std::string upper_case(std::string_view text) {
  std::string out{text};
  for (char& c : out) c = static_cast<char>(c >= 'a' && c <= 'z' ? c - 'a' + 'A' : c);
  return out;
}

bool is_recovery_code(std::string_view text) {
  if (text.size() != RECOVERY_LENGTH) return false;
  std::string letters, unused;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (i % (GROUP + 1) != GROUP)
      letters += text[i];
    else if (text[i] != '-')
      return false;
  }
  // Padded to whole bytes: the alphabet is what counts here.
  return totp::parse_base32(upper_case(letters) + "AAAA", unused);
}

bool is_any_code(std::string_view text) {
  return totp::is_code(text) || is_recovery_code(text);
}

std::string without_blanks(std::string text) {
  std::erase(text, ' ');
  return text;
}

// False for a text of another form.
bool parse_challenge(std::string_view text, TypedLogin& login) {
  if (!text.starts_with(CHALLENGE) || std::ranges::count(text, ':') != 2) return false;
  text.remove_prefix(CHALLENGE.size());
  return parse_base64(take_until(text, ':'), login.password) && parse_base64(text, login.code) &&
         one_line(login.password);
}

TypedLogin split_challenge(std::string_view text) {
  TypedLogin login;
  const bool whole = parse_challenge(text, login);
  login.code = without_blanks(login.code);
  return whole && is_any_code(login.code) ? login : TypedLogin{};
}

FactorRefusal take_recovery_code(SecondFactor& factor, std::string_view secret,
                                 std::string_view code) {
  const std::string digest = totp::digest_of(secret, upper_case(code));
  const auto known = std::ranges::find_if(factor.recovery,
                                          [&](const auto& one) { return totp::same(one, digest); });
  if (known == factor.recovery.end()) return FactorRefusal::Wrong;
  factor.recovery.erase(known);
  return FactorRefusal::None;
}

}  // namespace

std::string_view name_of(State state) {
  for (const StateName& row : STATES) {
    if (row.state == state) return row.name;
  }
  return {};
}

const char* reason_of_factor(int result) {
  for (const RefusalRow& row : REFUSALS) {
    if (static_cast<int>(row.refusal) == result) return row.reason;
  }
  return nullptr;
}

int status_of_factor(int result) {
  for (std::size_t i = 0; i < std::size(REFUSALS); ++i) {
    if (static_cast<int>(REFUSALS[i].refusal) == result) return FIRST_STATUS + static_cast<int>(i);
  }
  return 0;
}

int factor_of_status(int status) {
  const int at = status - FIRST_STATUS;
  return at >= 0 && at < static_cast<int>(std::size(REFUSALS))
             ? static_cast<int>(REFUSALS[static_cast<std::size_t>(at)].refusal)
             : 0;
}

TypedLogin split_login(std::string_view typed) {
  if (typed.starts_with(CHALLENGE)) return split_challenge(typed);
  for (const std::size_t length : {RECOVERY_LENGTH, totp::DIGITS}) {
    if (typed.size() <= length) continue;
    const std::string_view code = typed.substr(typed.size() - length);
    if (is_any_code(code))
      return {std::string(typed.substr(0, typed.size() - length)), std::string(code)};
  }
  return {};
}

std::string without_challenge(std::string_view typed) {
  TypedLogin login;
  const bool whole = parse_challenge(typed, login) && !login.password.empty();
  return whole ? login.password : std::string(typed);
}

FactorRefusal take_code(SecondFactor& factor, std::string_view code, std::int64_t now) {
  std::string secret;
  if (!totp::parse_base32(factor.secret, secret) || secret.empty()) return FactorRefusal::Damaged;
  if (code.empty()) return FactorRefusal::Absent;
  if (!totp::is_available()) return FactorRefusal::NoLibrary;
  if (is_recovery_code(code)) return take_recovery_code(factor, secret, code);
  const totp::Step present = totp::step_at(now);
  FactorRefusal refusal = FactorRefusal::Wrong;
  for (totp::Step away = -RECOGNISED; away <= RECOGNISED; ++away) {
    const totp::Step step = present + away;
    if (!totp::same(totp::code_at(secret, step), code)) continue;
    const bool in_time = away >= -WINDOW && away <= WINDOW;
    if (in_time && step > factor.used) {
      factor.used = step;
      return FactorRefusal::None;
    }
    refusal = step <= factor.used ? FactorRefusal::Used : FactorRefusal::Late;
  }
  return refusal;
}

std::vector<std::string> renew_recovery(SecondFactor& factor) {
  constexpr std::size_t BYTES = 10;  // more than the letters need
  std::string secret;
  std::vector<std::string> codes;
  factor.recovery.clear();
  if (!totp::parse_base32(factor.secret, secret) || !totp::is_available()) return {};
  while (codes.size() < RECOVERY_CODES) {
    const std::string bytes = totp::random_bytes(BYTES);
    if (bytes.empty()) return {};
    const std::string letters = totp::to_base32(bytes);
    std::string code = letters.substr(0, GROUP);
    for (std::size_t i = 1; i < GROUPS; ++i) code += '-' + letters.substr(i * GROUP, GROUP);
    factor.recovery.push_back(totp::digest_of(secret, code));
    codes.push_back(std::move(code));
  }
  return codes;
}

std::string requirements_in(std::string_view conf) {
  SecondFactor factor;
  factor.required = true;
  std::string text;
  for (const std::string& name : required_in(conf)) text += line_of(name, factor);
  return text;
}

SecondFactors::SecondFactors(std::string folder, std::string lock)
    : conf_(folder + "/totp.conf"),
      users_(std::move(folder) + "/totp.users"),
      lock_(std::move(lock)) {}

bool SecondFactors::exist() const {
  return access(conf_.c_str(), F_OK) == 0;
}

SecondFactor SecondFactors::of(std::string_view user) const {
  std::string conf;
  const int failure = read_file(conf_.c_str(), conf, LARGEST);
  if (failure == ENOENT) return {};
  return factor_in(failure, conf, users_, totp::percent_encoded(account_of(user)));
}

bool SecondFactors::change(std::string_view user,
                           const std::function<bool(SecondFactor& factor)>& edit) const {
  return change_line(totp::percent_encoded(account_of(user)), edit);
}

bool SecondFactors::change_line(const std::string& name,
                                const std::function<bool(SecondFactor& factor)>& edit) const {
  const Fd lock = locked(lock_);
  if (!lock) return false;
  std::string conf, users;
  const int failure = read_file(conf_.c_str(), conf, LARGEST);
  if (failure != 0 && failure != ENOENT) return false;
  // Removing the first file removes every second factor, so none may come back from the second.
  if (failure == ENOENT && !store(users_, "")) return false;
  const int failed = read_file(users_.c_str(), users, LARGEST);
  if (failed != 0 && failed != ENOENT && failed != EINVAL) return false;

  SecondFactor factor = failure == ENOENT ? SecondFactor{} : factor_in(failure, conf, users_, name);
  if (!edit(factor)) return true;
  const bool counts = factor.required || factor.state == State::On;
  const bool says_something = counts || factor.state == State::Pending;
  const std::string fresh =
      with_line(conf, name, says_something ? line_of(name, factor) : std::string());
  const std::string named = with_line(users, name, counts ? name + '\n' : std::string());
  const auto store_users = [&] { return named == users || store(users_, named); };
  // A user is named in the second file only while the first has the line, also if this process
  // ends in between.
  if (counts) return store(conf_, fresh) && store_users();
  return store_users() && store(conf_, fresh);
}

bool SecondFactors::require_as(std::string_view conf) const {
  std::string present;
  const int failure = read_file(conf_.c_str(), present, LARGEST);
  if (failure != 0 && failure != ENOENT) return false;
  const std::set<std::string> wanted = required_in(conf);
  std::set<std::string> names = required_in(present);
  names.insert(wanted.begin(), wanted.end());
  return std::ranges::all_of(names, [&](const std::string& name) {
    return change_line(name, [&](SecondFactor& factor) {
      factor.required = wanted.contains(name);
      return factor.state != State::Damaged;
    });
  });
}

bool SecondFactors::restore(std::string_view conf) const {
  const std::map<std::string, SecondFactor> kept = factors_in(conf);
  return std::ranges::all_of(kept, [&](const auto& row) {
    return change_line(row.first, [&](SecondFactor& factor) {
      const SecondFactor fresh = restored(factor, row.second);
      return std::exchange(factor, fresh) != fresh;
    });
  });
}

bool SecondFactors::differ_from(std::string_view conf) const {
  std::string present;
  const int failure = read_file(conf_.c_str(), present, LARGEST);
  return std::ranges::any_of(factors_in(conf), [&](const auto& row) {
    const SecondFactor factor = factor_in(failure, present, users_, row.first);
    return factor != restored(factor, row.second);
  });
}

FactorRefusal SecondFactors::use(std::string_view user, std::string_view code) const {
  FactorRefusal refusal = FactorRefusal::NotWritten;
  const bool written = change(user, [&](SecondFactor& factor) {
    refusal = factor.state == State::On ? take_code(factor, code, std::time(nullptr))
                                        : FactorRefusal::Damaged;
    factor.misses = 0;
    return refusal == FactorRefusal::None;
  });
  return written ? refusal : FactorRefusal::NotWritten;
}

}  // namespace fenro
