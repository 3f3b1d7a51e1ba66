// Tokens by which other programs use the web interface's routes without a login.
//
// They are in /etc/config/ormel/tokens.json, for root alone:
//   {"tokens": [{"id": "7f3a09c2", "name": "prometheus", "scope": "metrics", "hash": SHA-256 of the
//    secret's 32 bytes, "by": "admin", "uid": NUMBER, "created": SECONDS, "expires": SECONDS,
//    "used": SECONDS, "from": ADDRESS, "refused": SECONDS}]}
// "uid" is that of the maker's account; it is missing for root, and in the rows of older versions.
// A token is the text ormel_ID_SECRET. Its secret is kept nowhere, and shown once. The file is in
// no backup and no snapshot: a token that was removed must not come back.
//
// A token is good for no longer than its maker is an administrator whose account is not locked, and
// by the same account: another one that gets the name of a deleted one has another user ID. One
// that root has made on the command line ends by its time alone, and so does one whose row has no
// maker.
//
// A program with a token acts as the user "token:NAME", which no account of a host can be called.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ormel::token {

// What a token may do; each scope includes the ones before it.
enum class Scope {
  Metrics,  // the figures of the service
  Read,     // routes that change nothing
  Admin,    // routes that change something, too
};
[[nodiscard]] const char* name_of(Scope scope);  // "metrics", "read" or "admin"
[[nodiscard]] std::optional<Scope> scope_named(std::string_view name);

struct Token {
  std::string id, name;
  Scope scope = Scope::Metrics;
  std::string hash;
  std::string by;       // who has made it; "root" for the command line
  int64_t uid = 0;      // of that account; 0 for root, and where it is not known
  int64_t created = 0;  // seconds since 1970, as all times here
  int64_t expires = 0;  // the first second in which it is no longer valid
  int64_t used = 0;     // the latest use, noted once a minute at the most; 0 for never
  std::string from{};   // where it came from
  int64_t refused = 0;  // the first use that was refused for its maker; 0 for none
};

enum class State {
  Valid,
  Expired,
  NoMaker,  // who has made it is no administrator any more, or locked
};
[[nodiscard]] const char* name_of(State state);  // "valid", "expired" or "no-maker"
[[nodiscard]] State state_of(const Token& token, int64_t now);

constexpr int64_t SHORTEST_LIFE = 60;
constexpr int64_t LONGEST_LIFE = int64_t{3660} * 86400;
constexpr int64_t DEFAULT_LIFE = int64_t{365} * 86400;
constexpr size_t MOST_TOKENS = 100;
constexpr size_t LONGEST_NAME = 40;

// The result of a change: 0 or an ERROR_CODE, with what to do about it.
struct Verdict {
  int code = 0;
  std::string reason{};
};

// All tokens in the order in which they were made. False when the file is damaged or cannot be
// read.
[[nodiscard]] bool list(std::vector<Token>& tokens);
// Makes a token that is valid for `life` seconds; `text` is the only copy of its secret. ERR_VALUE
// for a name, scope or life that is not allowed, or a name that is taken.
[[nodiscard]] Verdict add(const std::string& name, const std::string& scope, int64_t life,
                          const std::string& by, Token& made, std::string& text);
// Removes a token by its name or id. ERR_CONFIGURE_INDEX where there is none.
[[nodiscard]] Verdict remove(const std::string& which);

// The token of a request.
struct Holder {
  std::string name{};  // "token:NAME"; empty for a token that is not valid
  Scope scope = Scope::Metrics;
  std::string refusal{};  // why it is not
  bool closes = false;    // the address is closed to all tokens from now on
  // The token and its maker, when it is refused for that maker and was not before.
  std::string orphan{}, maker{};
};

// Whether a header "Authorization" has a token in it, valid or not.
[[nodiscard]] bool is_bearer(std::string_view authorization);

// Checks the header "Authorization" of a request from `address`, and notes the use. Unknown,
// malformed and expired tokens and those without their maker get the same refusal. Ten wrong ones
// from one address close it to all tokens for a quarter of an hour.
[[nodiscard]] Holder check(std::string_view authorization, const std::string& address, int64_t now);

// Where the file and the counters of wrong tokens are; for tests.
struct Places {
  std::string file = "/etc/config/ormel/tokens.json";
  std::string lock = "/run/fenro/tokens.lock";
  std::string counters = "/run/fenro/tokens";
};
[[nodiscard]] Places& places();

}  // namespace ormel::token
