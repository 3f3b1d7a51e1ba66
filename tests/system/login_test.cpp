// The web login through the real web server, and the tool that keeps its sessions.
// appliance: --no-daemons --web
#include <algorithm>
#include <cctype>
#include <dlfcn.h>
#include <future>

#include <fenro/event_log.h>

#include "support/web_request.h"

using namespace ormel::test;

namespace {

constexpr const char* LOGIN = "https://localhost/fenro/login";
constexpr const char* LOGOUT = "https://localhost/fenro/logout";
constexpr const char* SESSIONS = "/run/fenro/sessions/";
constexpr const char* TOOL = "/usr/lib/fenro/fenro-session ";
const std::string REFUSED = refusal(38, "session pass");
const std::string NO_SESSION = refusal(39, "session invalid");

struct Reply {
  int status = 0;
  std::string head{}, body{};  // the head in small letters, as HTTP/2 has the names in it
  std::chrono::milliseconds time{0};
};

Reply curl(const std::string& url, const std::string& options = "") {
  const auto start = std::chrono::steady_clock::now();
  const std::string text = piped("curl -ski --max-time 60 " + options + " '" + url + "'").out;
  const std::size_t end = text.find("\r\n\r\n");
  if (end == std::string::npos) return {};
  const auto time = std::chrono::duration_cast<std::chrono::milliseconds>(
      std::chrono::steady_clock::now() - start);
  std::string head = text.substr(0, end);
  std::ranges::transform(head, head.begin(),
                         [](unsigned char byte) { return static_cast<char>(std::tolower(byte)); });
  return {std::stoi(head.substr(head.find(' '))), head, text.substr(end + 4), time};
}

Reply log_in(const std::string& user, const std::string& password,
             const std::string& options = "") {
  return curl(LOGIN, options + " -d 'user=" + user + "' -d 'password=" + password + "'");
}

int events(const char* user, const char* ip, const char* text) {
  void* const library = dlopen("libfenro.so", RTLD_NOW);
  const auto count = reinterpret_cast<decltype(&naslog_event_query_count_ex)>(
      dlsym(library, "naslog_event_query_count_ex"));
  return count(0, "", "", user, ip, "", text, "", "");
}

class WebLogin : public testing::Test {
 protected:
  WebLogin() {
    fs::remove_all("/run/fenro/login");
    for (const auto& session : fs::directory_iterator(SESSIONS)) fs::remove(session);
  }
};

TEST_F(WebLogin, BeginsASessionThatTheRoutesTakeUntilItIsEnded) {
  for (const std::string user : {"admin", "guest"}) {
    const Reply reply = log_in(user, password_of(user));
    const std::string sid = reply.body.substr(18, 8), admin = user == "admin" ? "true" : "false";
    EXPECT_EQ(
        reply.body,
        std::string(R"({"error":0,"sid":")").append(sid + R"(","admin":)").append(admin + '}'));
    EXPECT_THAT(reply.head, HasSubstr("cache-control: no-store"));
    EXPECT_THAT(read(SESSIONS + sid), HasSubstr("ip = 127.0.0.1\nhost_ip = 127.0.0.1\n"));
    const std::string route = "https://localhost" + std::string{SHOW} + "?type=256&sid=" + sid;
    EXPECT_NE(curl(route).body, NO_SESSION);
    const std::string form = "-d sid=" + sid;
    const Reply ended = user == "admin" ? curl(LOGOUT, form) : curl(LOGOUT + ("?sid=" + sid));
    EXPECT_EQ(ended.body, R"({"error":0})");
    EXPECT_EQ(curl(route).body, NO_SESSION);
    EXPECT_EQ(curl(LOGOUT, form).body, NO_SESSION);
    EXPECT_EQ(events(user.c_str(), "127.0.0.1", "logged in"), 1);
    EXPECT_EQ(events(user.c_str(), "127.0.0.1", "logged out"), 1);
  }
}

TEST_F(WebLogin, RefusesAWrongPasswordAndAnUnknownUserAlike) {
  std::vector<std::future<Reply>> replies;
  for (const char* user : {"admin", "absent", "a%0ab"})
    replies.push_back(
        std::async(std::launch::async, [user] { return log_in(user, "wr0ng-secret"); }));
  for (auto& future : replies) {
    const Reply reply = future.get();
    EXPECT_EQ(reply.status, 200);
    EXPECT_EQ(reply.body, REFUSED);
    EXPECT_GE(reply.time.count(), 3500);  // beyond what PAM waits by chance
  }
  EXPECT_EQ(events("admin", "127.0.0.1", "Login failed"), 1);
  EXPECT_EQ(events("unknown", "127.0.0.1", "Login failed"), 2);
  EXPECT_EQ(shell("grep -r wr0ng-secret /run /var/log /var/lib/fenro").out, "");
  EXPECT_TRUE(fs::is_empty(SESSIONS));
}

TEST_F(WebLogin, RefusesAnAddressThatFailedTooOften) {
  const std::string from = "--interface 127.0.0.2";
  for (const int together : {4, 4, 2}) {  // the web server lets no more in at once
    std::vector<std::future<Reply>> replies(static_cast<std::size_t>(together));
    for (auto& reply : replies)
      reply = std::async(std::launch::async, [&] { return log_in("admin", "wrong", from); });
    for (auto& reply : replies) EXPECT_EQ(reply.get().body, REFUSED);
  }
  for (int i = 0; i < 2; ++i) {
    const Reply reply = log_in("admin", password_of("admin"), from);
    EXPECT_EQ(reply.status, 429);
    EXPECT_EQ(reply.body, REFUSED);
    const std::size_t at = reply.head.find("retry-after: ");
    ASSERT_NE(at, std::string::npos) << reply.head;
    EXPECT_NEAR(std::stoi(reply.head.substr(at + 13)), 880, 20);
    EXPECT_LT(reply.time.count(), 1000);
  }
  EXPECT_EQ(events("admin", "127.0.0.2", "refused for a while"), 1);
  EXPECT_THAT(log_in("admin", password_of("admin")).body, StartsWith(R"({"error":0)"));
}

TEST_F(WebLogin, TakesNothingButAFormInTheBody) {
  const std::string fields = "user=admin&password=" + password_of("admin");
  const std::tuple<std::string, std::string, int> rows[] = {
      {LOGIN + ("?" + fields), "-d x=y", 400},
      {LOGIN, "-d '" + fields + "%00'", 400},
      {LOGIN, "-d '" + fields + "' -d " + std::string(8192, 'x'), 413},
      {LOGIN, "-d '" + fields + "' -H 'Content-Type: application/json'", 415},
      {LOGIN, "-F user=admin -F password=" + password_of("admin"), 415},
      {LOGIN, "-X PUT -d '" + fields + "'", 405},
      {LOGIN + std::string{"/x"}, "-d '" + fields + "'", 404},
  };
  for (const auto& [url, options, status] : rows) {
    for (const std::string version : {"--http1.1 ", "--http2 "}) {
      SCOPED_TRACE(testing::Message() << url << ' ' << version << options.substr(0, 200));
      const Reply reply = curl(url, version + options);
      EXPECT_EQ(reply.status, status);
      EXPECT_EQ(reply.body.find("sid"), std::string::npos);
    }
  }
  const Reply page = curl(LOGIN + ("?" + fields));
  for (const char* part : {"content-type: text/html; charset=utf-8", "form-action 'self'",
                           "cache-control: no-store", "<form method=\"post\">"})
    EXPECT_THAT(page.head + page.body, HasSubstr(part));

  // Straight to the program, as a web server would that knows no TLS, or puts other routes on it.
  const std::string cgi = "printf '" + fields +
                          "' | env -i REQUEST_METHOD=POST REMOTE_ADDR=127.0.0.1 CONTENT_TYPE=" +
                          "application/x-www-form-urlencoded SCRIPT_URL=/fenro/login ";
  for (const auto& [environment, status] : {std::pair{"", "403"},
                                            {"HTTPS=off", "403"},
                                            {"HTTPS=on SCRIPT_URL=/x", "404"},
                                            {"HTTPS=on", "200"}})
    EXPECT_EQ(shell(cgi + environment + " /usr/lib/fenro/fenro-login.cgi").out.substr(8, 3), status)
        << environment;
}

TEST_F(WebLogin, TheToolKeepsTheSessions) {
  const auto tool = [](const std::string& words) { return piped(TOOL + words + " 2>/dev/null"); };
  const std::string sid = tool("create guest 2001:db8::1 192.0.2.1").out.substr(0, 8);
  const std::string line = sid + "\tguest\t2001:db8::1\t";
  EXPECT_EQ(tool("list").out.find(line), 0U);
  EXPECT_EQ(tool("end -").status, 1);
  EXPECT_EQ(shell("echo " + sid + " | " + TOOL + "end -").status, 0);
  EXPECT_EQ(tool("list").out, "");
  const std::pair<int, std::vector<const char*>> rows[] = {
      {2,
       {"", "create", "create guest 1 2 3", "create guest 192.0.2.", "list all", "end",
        "frobnicate"}},
      {1, {"create no-such-user", "end ../../etc", "end-user guest"}},
      {0, {"create guest"}},
      {4, {"create guest >/dev/full"}},
      {0, {"end-user guest"}},
  };
  for (const auto& [status, lines] : rows)
    for (const char* words : lines) EXPECT_EQ(tool(words).status, status) << words;
  EXPECT_TRUE(fs::is_empty(SESSIONS));
  EXPECT_EQ(shell(std::string{"setpriv --reuid 1001 --clear-groups "} + TOOL + "list").status, 3);
}

TEST_F(WebLogin, EndsTheSessionsOfAnAccountThatIsLockedOrExpiredOrGone) {
  ASSERT_EQ(shell("useradd --no-create-home mallory && echo mallory:secret | chpasswd").status, 0);
  for (const char* change :
       {"usermod -L mallory", "usermod -e 1970-01-02 mallory", "userdel mallory"}) {
    const std::string sid = shell(TOOL + std::string{"create mallory"}).out.substr(0, 8),
                      file = SESSIONS + sid;
    const auto answer = [&] {
      shell("touch -d '-2 minutes' " + file);  // as if it had not been used since
      return curl("https://localhost" + std::string{SHOW}, "-d type=256 -d sid=" + sid).body;
    };
    EXPECT_THAT(answer(), HasSubstr(R"("error":0)")) << change;
    EXPECT_EQ(shell(change).status, 0) << change;
    EXPECT_EQ(answer(), NO_SESSION) << change;
    shell("usermod -U mallory; usermod -e '' mallory");
  }
}

}  // namespace
