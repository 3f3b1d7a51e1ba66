#include "daemons/pelmar/tokens.h"

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <unistd.h>

#include "base/base64.h"
#include "base/file.h"
#include "base/pelmar_files.h"
#include "daemons/pelmar/member_files.h"
#include "libfenro/ini_file.h"

#if !defined ORMEL_APP_ID || !defined ORMEL_APP_SECRET || !defined ORMEL_APP_PROVIDER
#error "the build says who the appliance is to the login service"
#endif

namespace fenro::pelmar {

namespace {

constexpr const char* LAST_SEEN = "PELMAR_TOKEN_LAST_SEEN";
constexpr std::size_t KEPT_MAX = std::size_t{1} << 20;
constexpr json_int_t NEVER = 0;   // expires
constexpr json_int_t HASTE = 60;  // seconds before its expiry a token counts as expired
constexpr json_int_t LONGEST_LIFE = 365L * 24 * 3600;

json_int_t now() {
  return std::time(nullptr);
}

std::string text(const json_t* object, const char* key) {
  const char* const value = text_or_null(object, key);
  return value ? value : "";
}

// Returns the lifetime from the cloud's answer, in seconds; 0 when it has none.
json_int_t life(const json_t* object) {
  return std::clamp(json_integer_value(json_object_get(object, "expires_in")), NEVER, LONGEST_LIFE);
}

Json load(const char* file) {
  std::string content;
  return read_file(file, content) == 0 ? parse_request(content, KEPT_MAX) : nullptr;
}

bool store(const char* file, const json_t* document) {
  return make_private_folder(STATE_FOLDER) && replace_file(file, compact(document));
}

// Returns a login in its stored form; null for an answer without a token.
Json login_of(const json_t* answer, const std::string& old_refresh_token) {
  const std::string token = text(answer, "access_token");
  if (token.empty()) return nullptr;
  const std::string refresh = text(answer, "refresh_token");
  const json_int_t seconds = life(answer);
  return Json{json_pack("{s:s, s:s, s:I}", "access_token", token.c_str(), "refresh_token",
                        (refresh.empty() ? old_refresh_token : refresh).c_str(), "expires",
                        seconds == 0 ? NEVER : now() + seconds)};
}

// Converts to the standard alphabet with padding. A blank was a "+" before form decoding.
std::string plain_base64(std::string_view encoded) {
  std::string out{encoded};
  for (char& c : out) c = c == '-' || c == ' ' ? '+' : c == '_' ? '/' : c;
  while (out.ends_with('=')) out.pop_back();
  out.append((4 - out.size() % 4) % 4, '=');
  return out;
}

Json renew(const CloudClient& cloud, const std::string& refresh_token) {
  if (refresh_token.empty()) return nullptr;
  const Json body{json_pack("{s:s, s:s, s:s, s:s, s:s}", "grant_type", "refresh_token",
                            "refresh_token", refresh_token.c_str(), "app_id", ORMEL_APP_ID,
                            "app_secret", ORMEL_APP_SECRET, "provider", ORMEL_APP_PROVIDER)};
  const CloudReply reply =
      cloud.ask({CloudService::LOGINS, "POST", "/v1/token", {}, compact(body.get())});
  return reply.good() ? login_of(reply.root.get(), refresh_token) : nullptr;
}

// Returns the stored token of an organisation while it is valid; empty otherwise.
std::string kept_token(const std::string& organization) {
  const json_int_t seen = std::strtoll(join_setting(LAST_SEEN).c_str(), nullptr, 10);
  const Json kept = load(PELMAR_TOKEN_FILE);
  const bool fresh = seen > 0 && seen <= now() && now() - seen < life(kept.get()) - HASTE;
  return fresh && text(kept.get(), "organization") == organization ? text(kept.get(), "token") : "";
}

void keep_token(const std::string& organization, const std::string& token, json_int_t seconds) {
  const Json kept{json_pack("{s:s, s:s, s:I}", "organization", organization.c_str(), "token",
                            token.c_str(), "expires_in", seconds)};
  // Write the key last: without it the stored token is ignored.
  if (store(PELMAR_TOKEN_FILE, kept.get()))
    std::ignore = ini::write_value(SETTINGS, JOIN_SECTION, LAST_SEEN, std::to_string(now()));
}

}  // namespace

bool save_cloud_token(std::string_view encoded) {
  std::string decoded;
  if (!parse_base64(plain_base64(encoded), decoded)) return false;
  const Json answer = parse_request(decoded);
  const Json login = answer ? login_of(answer.get(), "") : nullptr;
  if (!login || !store(CLOUD_TOKEN_FILE, login.get())) return false;
  unlink(PELMAR_TOKEN_FILE);  // it belongs to the previous login
  return true;
}

std::string cloud_token(const CloudClient& cloud) {
  Json login = load(CLOUD_TOKEN_FILE);
  const json_int_t expires = json_integer_value(json_object_get(login.get(), "expires"));
  if (expires == NEVER || now() < expires - HASTE) return text(login.get(), "access_token");
  if (Json renewed = renew(cloud, text(login.get(), "refresh_token"))) {
    std::ignore = store(CLOUD_TOKEN_FILE,
                        renewed.get());  // if it cannot be stored, it still serves this call
    return text(renewed.get(), "access_token");
  }
  return now() < expires ? text(login.get(), "access_token") : "";
}

std::string pelmar_token(const CloudClient& cloud, const std::string& organization) {
  const bool member = is_member_of(organization);
  if (member) {
    if (std::string kept = kept_token(organization); !kept.empty()) return kept;
  }
  const std::string login = cloud_token(cloud);
  const Json body{json_pack("{s:s}", "orgId", organization.c_str())};
  if (login.empty() || !body) return "";
  const CloudReply reply = cloud.ask({CloudService::PELMAR,
                                      "POST",
                                      "/pelmar/morvi/api/v1/token",
                                      {"skarnToken: " + login},
                                      compact(body.get())});
  if (!reply.good()) return "";
  std::string token = text(reply.root.get(), "pelmarToken");
  if (member && !token.empty()) keep_token(organization, token, life(reply.root.get()));
  return token;
}

}  // namespace fenro::pelmar
