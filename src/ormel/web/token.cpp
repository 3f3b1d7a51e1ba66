// The tokens of other programs, and the description of all routes that they read.
#include "ormel/actions/token.h"

#include <ctime>
#include <memory>

#include "base/utf8.h"
#include "ormel/web/routes.h"

namespace ormel::cgi::token {

namespace {

using ormel::token::Token;
using ormel::token::Verdict;

constexpr const char* OPENAPI_HEAD = "Content-Type: application/json\r\n";

void show(const Token& token, JsonValue& out) {
  out["id"] = token.id;
  out["name"] = token.name;
  out["scope"] = name_of(token.scope);
  out["by"] = fenro::valid_utf8(token.by);
  out["created"] = token.created;
  out["expires"] = token.expires;
  out["used"] = token.used;
  out["from"] = fenro::valid_utf8(token.from);
  out["state"] = name_of(state_of(token, std::time(nullptr)));
}

Outcome list(const Request&, JsonValue& reply) {
  std::vector<Token> tokens;
  if (!ormel::token::list(tokens))
    return {ERR_CMD_FAILED, ormel::token::places().file + " cannot be read"};
  JsonValue& rows = reply["data"].make_array();
  for (const Token& token : tokens) {
    auto row = std::make_unique<JsonValue>();
    show(token, *row);
    rows.append(std::move(row));
  }
  return {};
}

Outcome add(const Request& request, JsonValue& reply) {
  const auto life = request.whole("seconds", ormel::token::DEFAULT_LIFE);
  if (!life) return {ERR_VALUE, "seconds is a whole number"};
  // Without a maker, as when the session has just ended, the token would never lose its right.
  const std::string maker = origin_of(request, "").user;
  if (maker.empty()) return {ERR_SESSION_FAIL};
  Token made;
  std::string text;
  const Verdict verdict =
      ormel::token::add(request.value("name"), request.value("scope"), *life, maker, made, text);
  if (verdict.code != NO_ERROR) return {verdict.code, verdict.reason};
  JsonValue& data = reply["data"];
  show(made, data);
  data["token"] = text;
  return {};
}

Outcome remove(const Request& request, JsonValue&) {
  if (!request.filled("name")) return {ERR_MISS_OPTION, "name"};
  const Verdict verdict = ormel::token::remove(request.value("name"));
  return {verdict.code, fenro::valid_utf8(verdict.reason)};
}

int send_openapi(const Request&, SentFile& file) {
  file.head = OPENAPI_HEAD;
  file.content = File{std::fopen(ORMEL_OPENAPI, "re")};
  return file.content ? NO_ERROR : ERR_CMD_FAILED;
}

constexpr Route ROWS[] = {
    {"/ormel/token/list", ADMINISTRATOR, READS, json<list>},
    {"/ormel/token/add", ADMINISTRATOR, CHANGES, json<add>},
    {"/ormel/token/remove", ADMINISTRATOR, CHANGES, json<remove>},
    {"/ormel/openapi", ADMINISTRATOR, READS, file<send_openapi>},
};

}  // namespace

const Routes TOKENS{ROWS};

}  // namespace ormel::cgi::token
