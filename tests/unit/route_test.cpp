// Who gets an answer from which route: every row with every kind of session, and no work done.
#include <cstdlib>
#include <functional>
#include <gmock/gmock.h>
#include <map>
#include <set>
#include <string_view>

#include <fenro/auth.h>

#include "ormel/actions/token.h"
#include "ormel/base/error.h"
#include "ormel/web/handlers.h"
#include "ormel/web/routes.h"
#include "support/scratch_file.h"

constexpr std::string_view ADMINISTRATORS_SESSION = "admin";
constexpr std::string_view USERS_SESSION = "guest";

// In the place of the appliance's sessions and groups. A user is named as the session.
int auth_get_session(const char* sid, int touch, _session* session) {
  if (touch != 1 || (sid != ADMINISTRATORS_SESSION && sid != USERS_SESSION)) return -1;
  std::string_view(sid).copy(session->user, sizeof session->user - 1);
  return 0;
}

int User_Belongs_To_Group(const char* user, const char* group) {
  return group == std::string_view("administrators") ? user == ADMINISTRATORS_SESSION : 1;
}

namespace ormel::cgi {
namespace {

using testing::HasSubstr;
using testing::Not;

// What a general user gets, by hand: 39 wherever nothing is said here.
const std::map<std::string_view, int> FOR_GENERAL_USERS = {
    {"/ormel/config/show", 0},      {"/ormel/gateway/get", 0},   {"/ormel/gateway/get_vpn_gw", 0},
    {"/ormel/gateway/set", 41},     {"/ormel/guard/get", 0},     {"/ormel/my/show", 0},
    {"/ormel/my/profile", 0},       {"/ormel/my/end", 0},        {"/ormel/my/device_add", 0},
    {"/ormel/my/device_remove", 0}, {"/ormel/my/totp_begin", 0}, {"/ormel/my/totp_confirm", 0},
    {"/ormel/my/totp_off", 0}};

int works = 0;

// The row with a work that is only counted: the real one would change the host of the test.
Route counted(Route row) {
  row.answer.give = [](const Request&, JsonValue& response) {
    ++works;
    return answer_json(response, {});
  };
  return row;
}

TEST(Routes, LetNobodyInWithoutTheirSession) {
  for (const Route& row : routes()) {
    const auto exception = FOR_GENERAL_USERS.find(row.path);
    const std::pair<const char*, int> sessions[] = {
        {"", 39},
        {"sid=", 39},
        {"sid=gone", 39},
        {"user=admin&SID=admin", 39},
        {"sid=guest", exception == FOR_GENERAL_USERS.end() ? 39 : exception->second},
        {"sid=admin", 0}};
    for (const auto& [form, code] : sessions) {
      SCOPED_TRACE(std::string(row.path) + '?' + form);
      works = 0;
      const std::string answer =
          answer_locally(form, OF_SESSION, [&row, code = code](JsonValue& response) {
            EXPECT_EQ(serve(counted(row), response), code);
          });
      EXPECT_EQ(works, code == 0 ? 1 : 0);
      const std::string start = row.answer.medium == DOWNLOAD_MEDIUM && code != 0
                                    ? "Status: 404 Not Found\r\n"
                                    : "Content-type: application/json; charset=utf-8\r\n";
      EXPECT_EQ(answer.substr(0, start.size()), start);
    }
  }
}

const std::set<std::string_view> FOR_PEOPLE = {"/ormel/token/list",      "/ormel/token/add",
                                               "/ormel/token/remove",    "/ormel/log/dump",
                                               "/ormel/backup/download", "/ormel/backup/inspect",
                                               "/ormel/backup/restore",  "/ormel/oauth_login"};

// Reading routes that change something elsewhere.
const std::set<std::string_view> FOR_ADMINISTRATORS = {"/ormel/doctor/start",
                                                       "/ormel/pelmar/organization_list"};

class TokenRoutes : public testing::Test {
 protected:
  void TearDown() override {
    ormel::token::places() = former_;
    unsetenv("HTTP_AUTHORIZATION");
  }

  static std::string token_of(const char* scope) {
    ormel::token::Token made;
    std::string text;
    EXPECT_EQ(ormel::token::add(scope, scope, 60, "admin", made, text).code, NO_ERROR);
    return text;
  }
  static std::string ask(const Route& row, const std::string& token, const char* form = "") {
    setenv("HTTP_AUTHORIZATION", ("Bearer " + token).c_str(), 1);
    return answer_locally(form, OF_SESSION, [&row](JsonValue& out) {
      EXPECT_EQ(std::getenv("HTTP_AUTHORIZATION"), nullptr);
      std::ignore = serve(row, out);
    });
  }

 private:
  const support::Scratch scratch_;
  const ormel::token::Places former_ = std::exchange(
      ormel::token::places(),
      {scratch_.path("tokens.json"), scratch_.path("lock"), scratch_.path("counters")});
};

TEST_F(TokenRoutes, AreOpenToEachScopeAsItsNameSays) {
  const std::pair<const char*, std::function<bool(const Route&)>> scopes[] = {
      {"metrics", [](const Route& row) { return row.path == "/ormel/metrics"; }},
      {"read",
       [](const Route& row) {
         return row.effect == READS && !FOR_ADMINISTRATORS.contains(row.path);
       }},
      {"admin", [](const Route&) { return true; }}};
  for (const auto& [scope, opens] : scopes) {
    const std::string token = token_of(scope);
    for (const Route& row : routes()) {
      SCOPED_TRACE(std::string(scope) + ' ' + std::string(row.path));
      const bool personal = row.path.starts_with("/ormel/my/") || FOR_PEOPLE.contains(row.path);
      const bool open = opens(row) && !personal;
      const char* refusal = row.answer.medium == DOWNLOAD_MEDIUM ? "404" : "\"error\":41";
      works = 0;
      EXPECT_THAT(ask(counted(row), token), HasSubstr(open ? "\"error\":0" : refusal));
      EXPECT_EQ(works, open ? 1 : 0);
    }
  }
}

TEST_F(TokenRoutes, TakeNoTokenBesideASessionOrFromAForm) {
  const std::string token = token_of("admin");
  const Route row = counted(*find_route("/ormel/status/list"));
  for (const auto& [form, done] :
       {std::pair{"sid=", 0}, {"sid=guest", 0}, {"sid=gone", 0}, {"sid=admin", 1}}) {
    works = 0;
    std::ignore = ask(row, token, form);
    EXPECT_EQ(works, done) << form;
  }
  unsetenv("HTTP_AUTHORIZATION");
  for (const std::string& form :
       {"token=" + token, "access_token=" + token, "Authorization=" + token}) {
    works = 0;
    std::ignore = answer_locally(form, OF_SESSION,
                                 [&row](JsonValue& out) { EXPECT_EQ(serve(row, out), 39); });
    EXPECT_EQ(works, 0) << form;
  }
}

TEST_F(TokenRoutes, LeaveSecretsOutForAScopeThatChangesNothing) {
  Route row = *find_route("/ormel/config/show");
  row.answer.give = [](const Request&, JsonValue& out) {
    out["data"] = json_loads(R"([{"psk":"s1","peers":[{"psk":"s2","peer_pub_key":"public"}],
                                  "server_pri_key":"s3","pass":"s4","auth_user_pass":1},
                                 {"name":"hook","url":"s5"}])",
                             0, nullptr);
    out["name"] = "\xff";
    return answer_json(out, {});
  };
  const std::string read = ask(row, token_of("read"));
  EXPECT_THAT(read, AllOf(HasSubstr("public"), HasSubstr("\"auth_user_pass\":1")));
  const std::string admin = ask(row, token_of("admin"));
  for (const char* secret : {"\"s1", "\"s2", "\"s3", "\"s4", "\"s5"}) {
    EXPECT_THAT(read, Not(HasSubstr(secret)));
    EXPECT_THAT(admin, HasSubstr(secret));
  }
}

TEST(Routes, SendWhatAFailedWorkHasFoundWhereItSaysSo) {
  for (const bool keeps : {false, true}) {
    const std::string answer = answer_locally("", OF_SESSION, [&](JsonValue& response) {
      response["data"] = "found";
      EXPECT_EQ(fail(response, {ERR_VALUE, "why", keeps}), ERR_VALUE);
    });
    EXPECT_EQ(answer.find("found") != std::string::npos, keeps) << answer;
    EXPECT_THAT(answer, HasSubstr("\"reason\":\"why\""));
  }
}

TEST(Routes, KeepUsersOutForAWeekAtTheMost) {
  for (const auto& [minutes, code] : {std::pair{"-1", int{ERR_VALUE}},
                                      {"0", ERR_CONFIGURE_INDEX},  // no connection is named
                                      {"10080", ERR_CONFIGURE_INDEX},
                                      {"10081", ERR_VALUE}}) {
    const std::string form = std::string("sid=admin&minutes=") + minutes;
    const std::string answer = answer_locally(form, OF_SESSION, [&, code = code](JsonValue& out) {
      EXPECT_EQ(serve(*find_route("/ormel/connection/end"), out), code) << form;
    });
    EXPECT_THAT(answer, HasSubstr("\"error\":" + std::to_string(code)));
  }
}

TEST(Routes, AreFoundByTheirExactPathAndByTheirHandlers) {
  for (const Route& row : routes())
    EXPECT_EQ(find_route(row.path)->answer.give, row.answer.give) << row.path;
#define ORMEL_PATH(area, name, path) "/ormel/" path,
  for (const char* path : {ORMEL_HANDLERS(ORMEL_PATH)}) EXPECT_TRUE(find_route(path)) << path;
  for (const char* path :
       {"", "/ormel/nope", "/ormel/config", "/ormel/config/show/", "/ormel/Config/show"})
    EXPECT_FALSE(find_route(path)) << path;
}

}  // namespace
}  // namespace ormel::cgi
