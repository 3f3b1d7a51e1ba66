// Who gets an answer from which route: every row of the table with every kind of session, and no
// work done.
#include <map>
#include <string_view>

#include <fenro/auth.h>
#include <gtest/gtest.h>

#include "ormel/base/error.h"
#include "ormel/web/handlers.h"
#include "ormel/web/routes.h"

namespace {

constexpr std::string_view ADMINISTRATORS_SESSION = "admin";
constexpr std::string_view USERS_SESSION = "guest";

}  // namespace

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

// What a general user gets, by hand: 39 wherever nothing is said here.
const std::map<std::string_view, int> FOR_GENERAL_USERS = {
    {"/ormel/config/show", 0},      {"/ormel/gateway/get", 0},   {"/ormel/gateway/get_vpn_gw", 0},
    {"/ormel/gateway/set", 41},     {"/ormel/guard/get", 0},     {"/ormel/my/show", 0},
    {"/ormel/my/profile", 0},       {"/ormel/my/end", 0},        {"/ormel/my/device_add", 0},
    {"/ormel/my/device_remove", 0}, {"/ormel/my/totp_begin", 0}, {"/ormel/my/totp_confirm", 0},
    {"/ormel/my/totp_off", 0}};

int works = 0;

// The row with a work that is only counted: the real one would change the host that the test runs
// on.
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

TEST(Routes, SendWhatAFailedWorkHasFoundWhereItSaysSo) {
  for (const bool keeps : {false, true}) {
    const std::string answer = answer_locally("", OF_SESSION, [&](JsonValue& response) {
      response["data"] = "found";
      EXPECT_EQ(fail(response, {ERR_VALUE, "why", keeps}), ERR_VALUE);
    });
    EXPECT_EQ(answer.find("found") != std::string::npos, keeps) << answer;
    EXPECT_NE(answer.find("\"reason\":\"why\""), std::string::npos) << answer;
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
    EXPECT_NE(answer.find("\"error\":" + std::to_string(code)), std::string::npos) << answer;
  }
}

TEST(Routes, AreFoundByTheirExactPathAndByTheirHandlers) {
  for (const Route& row : routes())
    EXPECT_EQ(find_route(row.path)->answer.give, row.answer.give) << row.path;
#define ORMEL_PATH(area, name, path) "/ormel/" path,
  for (const char* path : {ORMEL_HANDLERS(ORMEL_PATH)}) EXPECT_TRUE(find_route(path)) << path;
  for (const char* path :
       {"", "/ormel/nope", "/ormel/config", "/ormel/config/show/", "/ormel/Config/show"}) {
    EXPECT_FALSE(find_route(path)) << path;
  }
}

}  // namespace
}  // namespace ormel::cgi
