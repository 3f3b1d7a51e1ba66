// The routes of the web interface: who may use them, what they answer, and what is behind the web
// server besides.
// appliance: --web
#include <map>

#include "ormel/web/routes.h"
#include "support/web_request.h"

using namespace ormel::test;

namespace {

// The paths of all rows of the route table, without "/ormel/".
std::vector<std::string> routes() {
  std::vector<std::string> paths;
  for (const ormel::cgi::Route& row : ormel::cgi::routes()) {
    paths.emplace_back(row.path.substr(std::string_view("/ormel/").size()));
  }
  return paths;
}

// What a general user gets who has no right, no device and no session of a tunnel; 39 wherever
// nothing is said here.
const std::map<std::string, int> FOR_GENERAL_USERS = {
    {"config/show", 0},       {"gateway/get", 0},    {"gateway/get_vpn_gw", 0},
    {"gateway/set", 41},      {"guard/get", 0},      {"my/show", 0},
    {"my/profile", 45},       {"my/end", 30},        {"my/device_add", 45},
    {"my/device_remove", 30}, {"my/totp_begin", 36}, {"my/totp_confirm", 8},
    {"my/totp_off", 8}};

// The programs that a request starts and the sockets that it opens, apart from those that every
// request needs.
std::string work_of(const std::string& route, const std::string& query) {
  run({"/usr/bin/strace", "-f", "-qq", "-e", "trace=execve,connect", "-o", "/tmp/trace", CGI},
      {"SCRIPT_URL=/ormel/" + route, "QUERY_STRING=" + query, "ASAN_OPTIONS=detect_leaks=0"});
  const Result work = shell(R"(grep -E '(execve|connect)\(' /tmp/trace |
      grep -v -e '/ormel.cgi"' -e /sbin/getcfg -e nscd)");
  return work.out;
}

ino_t file_number(const char* path) {
  struct stat status {};
  return stat(path, &status) == 0 ? status.st_ino : 0;
}

class WebRoutes : public WebHost {
 protected:
  // Whatever the form says: that of a general user would do a lot on some routes.
  static void expect_refused(const std::string& route, const std::string& query, int code) {
    SCOPED_TRACE(route + " " + query);
    const ino_t before = file_number(VPN_CONF);
    const WebReply reply = cgi("/ormel/" + route, query);
    EXPECT_EQ(reply.status, code);
    if (reply.head.find("json") != std::string::npos) {
      EXPECT_EQ(reply.body, refusal(code, code == 39 ? "session invalid" : "not admin session"));
    }
    EXPECT_EQ(work_of(route, query), "");
    EXPECT_EQ(file_number(VPN_CONF), before) << "a write replaces the file";
  }
};

TEST_F(WebRoutes, DoNothingWithoutTheirSession) {
  const std::string form =
      "type=PPTP&index=1&name=x&host=127.0.0.1&enable=true&as_gw_en=0&user=guest&ip=10.0.0.1&";
  const std::string manual = read("/usr/share/man/man8/ormel.cgi.8");
  for (const std::string& route : routes()) {
    expect_refused(route, form, 39);
    const auto row = FOR_GENERAL_USERS.find(route);
    const int code = row == FOR_GENERAL_USERS.end() ? 39 : row->second;
    const char* who = code == 39   ? "\\fR (administrators)"
                      : code == 41 ? "\\fR (administrators, others get error 41)"
                                   : "\\fR (any session)";
    EXPECT_THAT(manual, HasSubstr("\\fB/ormel/" + route + who));
    if (code == 39 || code == 41) {
      expect_refused(route, form + guest, code);
    } else {
      EXPECT_EQ(cgi("/ormel/" + route, form + guest).status, code) << route;
    }
  }
  EXPECT_EQ(read(CALLS), "");
}

TEST_F(WebRoutes, LetAdministratorsIn) {
  for (const std::string& route : routes()) {
    const int status = cgi("/ormel/" + route, admin).status;
    EXPECT_TRUE(status >= 0 && status != 35 && status != 39 && status != 41)
        << route << ' ' << status;
  }
}

TEST_F(WebRoutes, AreMatchedExactly) {
  for (const char* url :
       {"/ormel/nope", "", "ormel/config/show", "//ormel/config/show", "/ormel/config/show?x"}) {
    const WebReply reply = cgi(url, admin + "&type=256");
    EXPECT_EQ(reply.status, 35);
    EXPECT_EQ(reply.body, refusal(35, "api not found" + std::string(url)));
  }
  EXPECT_EQ(split_reply(run({CGI})).body, refusal(35, "api not found")) << "no SCRIPT_URL";
  EXPECT_EQ(cgi("/\"\n\xff", "").body.find(R"({"error":35,"reason":"api not found/\")"), 0U);
  EXPECT_THAT(read(LOG), HasSubstr(":35, api not found/ormel/nope\n"));
}

TEST_F(WebRoutes, AnswerInTheTypeThatTheClientAskedFor) {
  const std::pair<const char*, const char*> rows[] = {
      {"HTTP_ACCEPT=application/json", "application/json"},
      {"HTTP_ACCEPT=application/json, text/plain, */*", "text/plain"},
      {"HTTP_ACCEPT=*/*", "text/plain"},
      {"HTTP_ACCEPT=*/*;q=0.8", "application/json"},
      {"HTTP_ACCEPT=*/*, text/html", "application/json"},
      {"NONE=", "application/json"},
  };
  for (const auto& [accept, type] : rows) {
    const std::string head = "Content-type: " + std::string(type) + "; charset=utf-8";
    EXPECT_EQ(cgi(SHOW, "", {accept}).head, head) << accept;
    EXPECT_EQ(cgi("/ormel/nope", "", {accept}).head, head) << accept;
  }
}

class WebProfiles : public WebHost {};

TEST_F(WebProfiles, LiveAndGoOverHttps) {
  fs::remove(VPN_CONF);
  const auto call = [&](const char* route, std::vector<std::string> form) {
    form.insert(form.begin(), {"--data", admin, "--data", "type=PPTP"});
    const WebReply reply = https(route, form);
    EXPECT_THAT(reply.head, StartsWith("HTTP/2 200 \r\n"));
    EXPECT_THAT(reply.head, HasSubstr("content-type: text/plain; charset=utf-8"))
        << "curl takes anything";
    return reply.body;
  };

  const std::string added =
      call("/ormel/config/add", {"--data-urlencode", "name=the office", "--data",
                                 "host=127.0.0.1&user=bob&pass=cDE%3D&up=/bin/sh&enc=2"});
  for (const char* text : {R"("enc":2)", R"("profile":"the office")", R"("user":"bob")"})
    EXPECT_THAT(added, HasSubstr(text));
  EXPECT_THAT(added, AllOf(Not(HasSubstr("cDE=")), EndsWith(R"("error":0})")));
  EXPECT_EQ(conf_value("PPTP_CLIENT1", "AccessCode"), "cDE=");
  EXPECT_EQ(conf_value("PPTP_CLIENT1", "Up"), "") << "a program is never taken from a form";

  EXPECT_THAT(cli({"--type=PPTP", "--show=0"}).out,
              HasSubstr("Profile File = the office\nName = bob\n"));
  const std::string shown = https(std::string(SHOW) + "?type=256&" + admin).body;
  EXPECT_EQ(shown,
            "{\"data\":[" + added.substr(8, added.rfind(",\"error\"") - 8) + "],\"error\":0}");

  EXPECT_THAT(call("/ormel/config/connect", {"--data", "index=1"}), HasSubstr(R"("status":2)"));
  EXPECT_THAT(cli({"--type=PPTP", "--show=1"}).out, HasSubstr("\nStatus = 2\n"));
  EXPECT_THAT(call("/ormel/config/disconnect", {"--data", "index=1"}), HasSubstr(R"("status":0)"));
  EXPECT_EQ(call("/ormel/config/remove", {"--data", "index=1"}), R"({"error":0})");
  EXPECT_EQ(cli({"--type=PPTP", "--show=0"}).out, "");
  EXPECT_THAT(recorded("vpn_pptp_client.sh"), ElementsAre("start|1", "stop|1", "stop|1"));
}

TEST_F(WebProfiles, HideTheAccountFromAGeneralUser) {
  const std::string seen = cgi(SHOW, "type=256&" + guest).body;
  const std::string all = cgi(SHOW, "type=256&" + admin).body;

  const std::string profile = R"("profile":"office1")";
  EXPECT_THAT(all, AllOf(HasSubstr(profile), HasSubstr(R"("user":"bob")")));
  EXPECT_THAT(seen,
              AllOf(HasSubstr(profile), Not(HasSubstr("\"user\"")), Not(HasSubstr("\"pass\""))));
}

TEST_F(WebProfiles, AreShownByTheBitsOfANumber) {
  write(VPN_CONF, pptp_client(1) +
                      "[L2TP_CLIENT4]\nIndex = 4\nProfile File = x\nServer Address = 127.0.0.1\n");
  const std::pair<const char*, size_t> rows[] = {
      {"256", 1},   {"512", 1},  {"768", 2}, {"1", 1},    {"1023", 7}, {"-1", 7},  {"1024", 0},
      {"SPPTP", 0}, {"PPTP", 0}, {"0", 0},   {"256x", 1}, {"x256", 0}, {" 256", 1}};
  for (const auto& [type, count] : rows) {
    SCOPED_TRACE(type);
    const std::string body = cgi(SHOW, admin + "&type=" + type).body;
    EXPECT_EQ(occurrences(body, "\"type\":"), count);
    EXPECT_EQ(body == R"({"data":null,"error":0})", count == 0);
  }
}

TEST_F(WebProfiles, RefuseInTheOrderOfTheirChecks) {
  const std::tuple<const char*, const char*, int> rows[] = {
      {"show", "", 2},
      {"show", "&type=", 2},
      {"show", "&type=%00", 2},
      {"add", "", 2},
      {"add", "&type=nope&mask=99", 3},
      {"add", "&type=PPTP&mask=99&enc=9", 9},
      {"add", "&type=PPTP&enc=9&mask=99", 5},
      {"add", "&type=PPTP&name=", 9},
      {"add", "&type=PPTP&name=x%0ay", 9},
      {"add", "&type=PPTP&host=127.0.0.1", 13},
      {"add", "&type=SPPTP", 8},
      {"remove", "", 2},
      {"remove", "&type=nope", 3},
      {"remove", "&type=255&index=1", 3},
      {"remove", "&type=PPTP", 36},
      {"remove", "&type=PPTP&index=", 30},
      {"remove", "&type=256abc&index=7", 30},
      {"remove", "&type=sovpn&index=7", 30},
      {"remove", "&type=PPTP&index=-1", 30},
      {"remove", "&type=SPPTP&index=0", 3},
      {"connect", "&type=PPTP&index=7&name=x", 4},
      {"connect", "&type=PPTP&index=7&remove=1&modify=1&show=1&add&type=PPTP", 30},
      {"connect", "&type=SPPTP&index=0", 3},
      {"disconnect", "&type=SPPTP&index=7", 3},
  };
  const std::string before = read(VPN_CONF);
  for (const auto& [route, form, code] : rows) {
    SCOPED_TRACE(std::string(route) + " " + form);
    const WebReply reply = cgi("/ormel/config/" + std::string(route), admin + form);
    EXPECT_EQ(reply.status, code);
    EXPECT_THAT(reply.body, StartsWith("{\"error\":" + std::to_string(code) + ",\"reason\":\""));
    EXPECT_EQ(read(VPN_CONF), before);
  }
}

TEST_F(WebProfiles, AreFullAtSixteenOfTheUsersOwn) {
  std::string text;
  for (int i = 1; i <= 15; ++i) text += pptp_client(i);
  for (int i = 16; i <= 20; ++i) text += pptp_client(i, "Vendor = app\n");
  write(VPN_CONF, text);
  EXPECT_EQ(cgi("/ormel/config/add", admin).body, refusal(2, "no type"));

  write(VPN_CONF, text + pptp_client(21));
  for (const char* form : {"", "&type=nope", "&type=WG", "&type=SPPTP"})
    EXPECT_EQ(cgi("/ormel/config/add", admin + form).body, refusal(43, "configuration full"))
        << form;
}

class WebServer : public WebHost {};

TEST_F(WebServer, ServesNothingButTheRoutes) {
  const std::tuple<const char*, std::vector<std::string>, const char*> rows[] = {
      {"/ormel/config/show", {}, "200"},
      {"/ormel/nope", {}, "200"},
      {"/", {}, "200"},
      {"/assets/%2e%2e/nginx.conf", {"--path-as-is"}, "404"},
      {"/index.html", {}, "404"},
      {"/ormel", {}, "404"},
      {"/fenro/", {}, "404"},
      {"/fenro/logout/x", {}, "404"},
      {"/usr/sbin/ormel.cgi", {}, "404"},
      {"/ormel/../etc/passwd", {"--path-as-is"}, "404"},
      {"/ormel/%2e%2e/%2e%2e/etc/passwd", {"--path-as-is"}, "400"},
      {"//ormel/config/show", {"--path-as-is"}, "404"},
      {"/ormel/config/show", {"-X", "PUT"}, "405"},
      {"/ormel/config/show", {"-X", "TRACE"}, "405"},
      {"/ormel/config/show", {"-d", "x", "-H", "Content-Length: x"}, "400"},
      {"/ormel/config/show", {"-d", "x", "-H", "Content-Length: 99999999999"}, "413"},
  };
  for (const auto& [path, options, status] : rows) {
    for (const auto& [option, version] :
         {std::pair{"--http1.1", "HTTP/1.1 "}, {"--http2", "HTTP/2 "}}) {
      SCOPED_TRACE(path);
      std::vector<std::string> all = options;
      all.emplace_back(option);
      const WebReply reply = https(path, all);
      EXPECT_THAT(reply.head, StartsWith(std::string(version) + status));
      EXPECT_THAT(reply.head + reply.body, Not(HasSubstr("root:")));
    }
  }
  // A header that is too large has no answer in HTTP/2: its stream is closed.
  const std::string large = "X: " + std::string(40000, 'x');
  EXPECT_THAT(https(SHOW, {"-H", large, "--http1.1"}).head, StartsWith("HTTP/1.1 400"));
  EXPECT_EQ(https(SHOW, {"-H", large, "--http2"}).head, "");
  EXPECT_EQ(run({"/usr/bin/curl", "-s", "http://localhost/"}).status, 7) << "nothing without TLS";
  EXPECT_THAT(run({"/usr/bin/curl", "-si", "http://localhost:443/"}).out, HasSubstr(" 400 "));
  // More than a pipe holds, and nobody wants it: the answer still comes.
  write("/tmp/body", std::string(1 << 20, 'x'));
  for (const std::vector<std::string>& body :
       {std::vector<std::string>{"--data-binary", "@/tmp/body"},
        {"-H", "Content-Type: multipart/form-data; boundary=edge", "--data-binary", "@/tmp/body"}})
    EXPECT_EQ(https("/ormel/config/check", body).body, refusal(39, "session invalid"));
  EXPECT_EQ(https("/ormel//config/show").body, refusal(35, "api not found/ormel//config/show"));
}

}  // namespace
