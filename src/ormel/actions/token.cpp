#include "ormel/actions/token.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <ctime>
#include <fcntl.h>
#include <nettle/memops.h>
#include <pwd.h>
#include <sys/file.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <tuple>
#include <unistd.h>

#include <fenro/auth.h>

#include "base/account.h"
#include "base/login_throttle.h"
#include "base/utf8.h"
#include "ormel/base/crypto.h"
#include "ormel/base/error.h"
#include "ormel/base/file.h"
#include "ormel/base/handle.h"

namespace ormel::token {

namespace {

constexpr const char* SCOPES[] = {"metrics", "read", "admin"};
constexpr const char* STATES[] = {"valid", "expired", "no-maker"};
constexpr std::string_view COMMAND_LINE = "root";  // the maker of what is made there
constexpr const char* ADMINISTRATORS = "administrators";
constexpr std::string_view SCHEME = "bearer ";
constexpr std::string_view PREFIX = "ormel_";
constexpr const char* HOLDER = "token:";
constexpr size_t ID_BYTES = 4;
constexpr size_t SECRET_BYTES = 32;
constexpr int64_t NOTE_SECONDS = 60;
constexpr size_t MOST_BYTES = size_t{1} << 20;
constexpr const char* NOT_VALID = "the token is unknown or out of date: ormelctl token list";
constexpr const char* HEXADECIMAL = "0123456789abcdef";

std::string text_of(const json_t* object, const char* key) {
  const char* const text = json_string_value(json_object_get(object, key));
  return text ? text : "";
}

int64_t number_of(const json_t* object, const char* key) {
  return json_integer_value(json_object_get(object, key));
}

bool parse(const json_t* row, Token& token) {
  const std::optional<Scope> scope = scope_named(text_of(row, "scope"));
  if (!scope) return false;
  token = {.id = text_of(row, "id"),
           .name = text_of(row, "name"),
           .scope = *scope,
           .hash = text_of(row, "hash"),
           .by = text_of(row, "by"),
           .uid = number_of(row, "uid"),
           .created = number_of(row, "created"),
           .expires = number_of(row, "expires"),
           .used = number_of(row, "used"),
           .from = text_of(row, "from"),
           .refused = number_of(row, "refused")};
  return !token.id.empty() && !token.name.empty();
}

Json document_of(const std::vector<Token>& tokens) {
  Json rows{json_array()};
  for (const Token& token : tokens) {
    json_t* const row = json_pack(
        "{s:s, s:s, s:s, s:s, s:s, s:I, s:I, s:I, s:s, s:I}", "id", token.id.c_str(), "name",
        token.name.c_str(), "scope", name_of(token.scope), "hash", token.hash.c_str(), "by",
        fenro::valid_utf8(token.by).c_str(), "created", json_int_t{token.created}, "expires",
        json_int_t{token.expires}, "used", json_int_t{token.used}, "from",
        fenro::valid_utf8(token.from).c_str(), "refused", json_int_t{token.refused});
    if (token.uid != 0) json_object_set_new(row, "uid", json_integer(token.uid));
    json_array_append_new(rows.get(), row);
  }
  return Json{json_pack("{s:o}", "tokens", rows.release())};
}

bool store(const std::vector<Token>& tokens) {
  constexpr mode_t FOLDER_MODE = 0755;
  const CString text{json_dumps(document_of(tokens).get(), JSON_INDENT(1))};
  const std::string& file = places().file;
  mkdir(file.substr(0, file.rfind('/')).c_str(), FOLDER_MODE);
  return text && system::replace_file(file, std::string(text.get()) + '\n', fenro::PRIVATE_FILE);
}

// The lock is held from reading to writing.
Fd take_turn() {
  const std::string& lock = places().lock;
  if (!fenro::make_private_folder(lock.substr(0, lock.rfind('/')))) return Fd{};
  Fd turn{open(lock.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, fenro::PRIVATE_FILE)};
  if (turn && TEMP_FAILURE_RETRY(flock(turn.get(), LOCK_EX)) != 0) return Fd{};
  return turn;
}

Verdict no_file() {
  return {ERR_SAVE_FILE,
          places().file + " cannot be read or written; without it there are no tokens"};
}

std::string hexadecimal(std::string_view bytes) {
  std::string text;
  for (const char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    text += {HEXADECIMAL[byte >> 4U], HEXADECIMAL[byte & 0xfU]};
  }
  return text;
}

// Empty for a text that is not made of whole bytes.
std::string bytes_of(std::string_view text) {
  std::string bytes;
  for (; text.size() > 1; text.remove_prefix(2)) {
    unsigned byte = 0;
    const auto [end, failure] = std::from_chars(text.data(), text.data() + 2, byte, 16);
    if (failure != std::errc{} || end != text.data() + 2) return {};
    bytes += static_cast<char>(byte);
  }
  return text.empty() ? bytes : std::string();
}

bool fill_randomly(std::string& bytes) {
  return getrandom(bytes.data(), bytes.size(), 0) == static_cast<ssize_t>(bytes.size());
}

bool is_name(const std::string& name) {
  constexpr const char* ALLOWED =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789._-";
  return !name.empty() && name.size() <= LONGEST_NAME &&
         name.find_first_not_of(ALLOWED) == std::string::npos;
}

// By a name or an id. No token has another one's id as its name, or `remove` could take either.
std::vector<Token>::const_iterator find(const std::vector<Token>& tokens,
                                        const std::string& which) {
  return std::ranges::find_if(
      tokens, [&which](const Token& one) { return one.name == which || one.id == which; });
}

// 0 for root, and for a name without an account.
int64_t uid_of(const std::string& user) {
  const passwd* const account = getpwnam(user.c_str());
  return account ? int64_t{account->pw_uid} : 0;
}

// Empty, or what is wrong with the request.
std::string fault_of(const std::vector<Token>& tokens, const std::string& name,
                     const std::string& scope, int64_t life) {
  if (!is_name(name)) return "a name has 1 to 40 letters, digits, dots, hyphens and underscores";
  if (!scope_named(scope)) return "the scope is metrics, read or admin";
  if (life < SHORTEST_LIFE || life > LONGEST_LIFE)
    return "a token is valid for a minute at least, and for 3660 days at most";
  if (tokens.size() >= MOST_TOKENS) return "there are 100 tokens already: remove one first";
  return find(tokens, name) != tokens.end() ? "there is a token of that name already" : "";
}

bool equal(std::string_view one, std::string_view other) {
  return one.size() == other.size() && memeql_sec(one.data(), other.data(), one.size()) != 0;
}

// Takes the same time for every token, known or not.
const Token* find_token(const std::vector<Token>& tokens, std::string_view text) {
  const size_t middle = text.find('_');
  const std::string_view id = text.substr(0, middle);
  const std::string_view secret =
      middle == std::string_view::npos ? std::string_view() : text.substr(middle + 1);
  const std::string hash = openssl::sha256(bytes_of(secret));
  const Token* found = nullptr;
  for (const Token& token : tokens) {
    const bool same = equal(token.id, id) & equal(token.hash, hash);
    if (same) found = &token;
  }
  return found;
}

// The token in the header, without its scheme and prefix.
std::string_view bearer_of(std::string_view header) {
  if (!is_bearer(header)) return {};
  header.remove_prefix(std::min(header.find_first_not_of(' ', SCHEME.size()), header.size()));
  return header.starts_with(PREFIX) ? header.substr(PREFIX.size()) : std::string_view();
}

// A failure is ignored: the token is valid anyway.
void note_use(const std::string& id, const std::string& address, int64_t now) {
  const Fd turn = take_turn();
  std::vector<Token> tokens;
  if (!turn || !list(tokens)) return;
  const auto token = std::ranges::find(tokens, id, &Token::id);
  if (token == tokens.end()) return;
  token->used = now;
  token->from = address;
  token->refused = 0;
  std::ignore = store(tokens);
}

// Whether this is the first refusal. One that cannot be noted is not reported, or each request
// would be a row of the audit trail.
bool note_refusal(const std::string& id, int64_t now) {
  const Fd turn = take_turn();
  std::vector<Token> tokens;
  if (!turn || !list(tokens)) return false;
  const auto token = std::ranges::find(tokens, id, &Token::id);
  if (token == tokens.end() || token->refused != 0) return false;
  token->refused = now;
  return store(tokens);
}

std::string too_many(std::time_t seconds) {
  return "too many wrong tokens from this address: try again in " + std::to_string(seconds) + " s";
}

}  // namespace

Places& places() {
  static Places where;
  return where;
}

const char* name_of(Scope scope) {
  return SCOPES[static_cast<size_t>(scope)];
}

const char* name_of(State state) {
  return STATES[static_cast<size_t>(state)];
}

State state_of(const Token& token, int64_t now) {
  if (now >= token.expires) return State::Expired;
  if (token.by.empty() || token.by == COMMAND_LINE) return State::Valid;
  // A locked account ends its sessions, which must not live on as tokens.
  const char* const maker = token.by.c_str();
  const bool same = token.uid == 0 || token.uid == uid_of(token.by);
  return same && User_Belongs_To_Group(maker, ADMINISTRATORS) && !fenro::is_locked(maker)
             ? State::Valid
             : State::NoMaker;
}

std::optional<Scope> scope_named(std::string_view name) {
  const auto* const found = std::ranges::find(SCOPES, name);
  if (found == std::end(SCOPES)) return {};
  return static_cast<Scope>(found - SCOPES);
}

bool is_bearer(std::string_view authorization) {
  const auto same = [](char a, char b) { return (a >= 'A' && a <= 'Z' ? a - 'A' + 'a' : a) == b; };
  return authorization.size() >= SCHEME.size() &&
         std::ranges::equal(authorization.substr(0, SCHEME.size()), SCHEME, same);
}

bool list(std::vector<Token>& tokens) {
  std::string text;
  const int failure = fenro::read_file(places().file.c_str(), text, MOST_BYTES);
  if (failure == ENOENT) return true;
  const Json document{json_loadb(text.data(), text.size(), 0, nullptr)};
  const json_t* const rows = json_object_get(document.get(), "tokens");
  if (!json_is_array(rows)) return false;
  size_t at = 0;
  const json_t* row = nullptr;
  json_array_foreach(rows, at, row) {
    Token token;
    if (!parse(row, token)) return false;
    tokens.push_back(std::move(token));
  }
  return true;
}

Verdict add(const std::string& name, const std::string& scope, int64_t life, const std::string& by,
            Token& made, std::string& text) {
  const Fd turn = take_turn();
  std::vector<Token> tokens;
  if (!turn || !list(tokens)) return no_file();
  if (std::string fault = fault_of(tokens, name, scope, life); !fault.empty())
    return {ERR_VALUE, std::move(fault)};
  std::string id(ID_BYTES, '\0'), secret(SECRET_BYTES, '\0');
  do {
    if (!fill_randomly(id) || !fill_randomly(secret))
      return {ERR_GENERAL, "the kernel gives no random bytes"};
  } while (hexadecimal(id) == name || find(tokens, hexadecimal(id)) != tokens.end());
  const int64_t now = std::time(nullptr);
  made = {.id = hexadecimal(id),
          .name = name,
          .scope = *scope_named(scope),
          .hash = openssl::sha256(secret),
          .by = by,
          .uid = uid_of(by),
          .created = now,
          .expires = now + life};
  tokens.push_back(made);
  if (!store(tokens)) return no_file();
  text = std::string(PREFIX) + made.id + '_' + hexadecimal(secret);
  return {};
}

Verdict remove(const std::string& which) {
  const Fd turn = take_turn();
  std::vector<Token> tokens;
  if (!turn || !list(tokens)) return no_file();
  const auto token = find(tokens, which);
  if (token == tokens.end()) return {ERR_CONFIGURE_INDEX, "no token is named " + which};
  tokens.erase(token);
  return store(tokens) ? Verdict{} : no_file();
}

Holder check(std::string_view authorization, const std::string& address, int64_t now) {
  const fenro::LoginThrottle throttle{places().counters};
  const std::time_t clock = fenro::LoginThrottle::clock();
  if (const std::time_t wait = throttle.retry_after(address, clock); wait > 0)
    return {.refusal = too_many(wait)};
  std::vector<Token> tokens;
  if (!list(tokens)) return {.refusal = no_file().reason};
  const Token* const token = find_token(tokens, bearer_of(authorization));
  // A program that still sends such a token is not guessing, and must not close its address.
  const State state = token ? state_of(*token, now) : State::Valid;
  if (state == State::Expired) return {.refusal = NOT_VALID};
  if (state == State::NoMaker) {
    const bool first = token->refused == 0 && note_refusal(token->id, now);
    return {
        .refusal = NOT_VALID, .orphan = first ? token->name : "", .maker = first ? token->by : ""};
  }
  if (!token) {
    // The address stands for the user, so that attempts from elsewhere do not count against it.
    std::ignore = throttle.admit(address, address, clock);  // it is refused anyway
    return {.refusal = NOT_VALID, .closes = throttle.retry_after(address, clock) > 0};
  }
  if (now - token->used >= NOTE_SECONDS || token->used > now || token->refused != 0)
    note_use(token->id, address, now);
  return {HOLDER + token->name, token->scope};
}

}  // namespace ormel::token
