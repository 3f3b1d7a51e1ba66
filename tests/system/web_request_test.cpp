// One request of the web interface as the program sees it: bodies, uploads, sessions, its process,
// and its log.
// appliance: --web
#include "support/web_request.h"

using namespace ormel::test;

namespace {

constexpr size_t UPLOAD_LIMIT = 1048576;
const std::string NO_TYPE = refusal(2, "no type");
const std::string NO_SESSION = refusal(39, "session invalid");

class WebForm : public WebHost {};

TEST_F(WebForm, ReadsTheSameFromAddressBodyAndParts) {
  const std::string sid = admin.substr(4);
  const std::string expected = cgi(SHOW, admin + "&type=256").body;
  EXPECT_THAT(expected, HasSubstr("office1"));
  const std::string parts =
      part("sid", sid) + part("note", std::string(5000, '\r')) + part("type", "256") + "--edge--";
  const std::string form = admin + "&type=256";
  EXPECT_EQ(cgi(SHOW, "", {"CONTENT_LENGTH=1"}, form).body, expected) << "not the real length";
  EXPECT_EQ(cgi(SHOW, "", {}, form).body, NO_SESSION) << "without a length there is no body";
  EXPECT_EQ(cgi(SHOW, admin + "&type=1", {"CONTENT_LENGTH=1"}, "type=256").body, expected)
      << "the body overrides";
  EXPECT_EQ(cgi(SHOW, "", {"CONTENT_LENGTH=1", MULTIPART}, parts).body, expected);
  EXPECT_EQ(https(SHOW, {"-F", admin, "-F", "type=256"}).body, expected);
  EXPECT_EQ(https(SHOW, {"-F", admin, "-F", "file=@/etc/passwd", "-F", "type=256"}).body, expected);
  for (const char* version : {"--http1.1", "--http2"})
    EXPECT_EQ(https(SHOW, {"-d", form, "-H", "Transfer-Encoding: chunked", version}).body, expected)
        << version;
  EXPECT_EQ(uploads(), 0U);
}

TEST_F(WebForm, EndsWhateverTheBodyHolds) {
  const std::string nuls(1 << 20, '\0');
  const std::pair<Environment, std::string> rows[] = {
      {{}, nuls},
      {{}, std::string(1 << 20, '[')},
      {{}, "a=" + std::string(4 << 20, '%')},
      {{MULTIPART}, nuls},
      {{MULTIPART}, std::string("--edge\r\n") + std::string(1 << 20, 'a')},
      {{"CONTENT_TYPE=multipart/form-data; boundary="}, "--\r\n"},
      {{"CONTENT_TYPE=boundary=" + std::string(60000, '-')}, std::string(1 << 20, '-')},
  };
  for (const auto& [type, body] : rows) {
    Environment environment{"CONTENT_LENGTH=1"};
    environment.insert(environment.end(), type.begin(), type.end());
    EXPECT_EQ(cgi(SHOW, admin, environment, body).body, NO_TYPE) << body.substr(0, 20);
  }
}

TEST_F(WebForm, TakesAHundredThousandVariables) {
  std::string form;
  for (int i = 0; i < 100000; ++i) form += "v" + std::to_string(i) + "=" + std::to_string(i) + "&";
  const auto start = std::chrono::steady_clock::now();
  EXPECT_THAT(cgi(SHOW, "", {"CONTENT_LENGTH=1"}, form + admin + "&type=256").body,
              HasSubstr("office1"));
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
}

TEST_F(WebForm, EndsAnEndlessBody) {
  for (const std::string type : {"CONTENT_TYPE=", MULTIPART}) {
    write("/tmp/begin", type == MULTIPART ? part("name", "") : "name=");
    const std::string command =
        "(cat /tmp/begin; yes aaaaaaaa | tr '\\n' 'x') | " + std::string(CGI);
    const Result result = run({"/bin/sh", "-c", command},
                              {"PATH=/usr/bin:/bin", "CONTENT_LENGTH=1", type,
                               std::string("SCRIPT_URL=") + SHOW, "QUERY_STRING=" + admin});
    EXPECT_THAT(result.out, HasSubstr(NO_TYPE));
  }
}

constexpr const char* CHECK = "/ormel/config/check";

class WebUpload : public WebHost {};

TEST_F(WebUpload, OfOneMebibyteIsTakenAndOneByteMoreEndsTheForm) {
  for (const bool fits : {true, false}) {
    const std::string file(UPLOAD_LIMIT + (fits ? 0 : 1), fits ? '\r' : 'u');
    const std::string body = part("ovpn", file, "a.ovpn") + part("type", "256") + "--edge--";
    write("/tmp/upload", file);
    const std::string direct = cgi(SHOW, admin, {"CONTENT_LENGTH=1", MULTIPART}, body).body;
    const std::string served =
        https(std::string(CHECK) + "?" + admin, {"-F", "ovpn=@/tmp/upload"}).body;
    EXPECT_EQ(served,
              fits ? refusal(23, "incorrect client config") : refusal(-1, "ca_files_check ERROR"));
    // What comes behind a refused file is not read.
    EXPECT_THAT(direct,
                fits ? testing::Matcher<std::string>(HasSubstr("office1")) : testing::Eq(NO_TYPE));
    EXPECT_EQ(uploads(), 0U);
  }
}

TEST_F(WebUpload, CutOffByTheClientLeavesNothing) {
  const std::string body = part("ovpn", std::string(600000, 'u'), "a.ovpn");
  EXPECT_EQ(cgi(SHOW, admin, {"CONTENT_LENGTH=1000000", MULTIPART}, body.substr(0, 500000)).body,
            NO_TYPE);
  EXPECT_EQ(uploads(), 0U);
  write("/tmp/upload", std::string(UPLOAD_LIMIT, 'u'));
  const std::string address = "https://localhost" + std::string(CHECK) + "?" + admin;
  const Result gone = run({"/usr/bin/curl", "-ks", "--limit-rate", "200k", "--max-time", "2", "-F",
                           "ovpn=@/tmp/upload", address});
  EXPECT_EQ(gone.status, 28) << "the client gives up";
  EXPECT_EQ(uploads(), 0U);
  EXPECT_THAT(https(std::string(SHOW) + "?type=256&" + admin).body, HasSubstr("office1"));
}

TEST_F(WebUpload, GoesWhenTheClientLeavesDuringTheWork) {
  write("/tmp/upload", "x");
  const Result gone =
      run({"/usr/bin/curl", "-ks", "--max-time", "3", "-F", admin, "-F", "type=PPTP", "-F",
           "index=1", "-F", "ovpn=@/tmp/upload", "https://localhost/ormel/config/connect"});
  EXPECT_EQ(gone.status, 28) << "a connect takes five seconds";
  EXPECT_TRUE(recorded_soon("vpn_pptp_client.sh", 1));
  EXPECT_TRUE(comes_true([] { return uploads() == 0; }, 20));
}

TEST_F(WebUpload, GoesWithARequestThatASignalEnds) {
  const std::string body =
      part("a", "first", "a") + part("b", "second", "b") + part("a", "in its place", "c");
  const std::string command =
      "exec env SCRIPT_URL=" + std::string(SHOW) + " CONTENT_LENGTH=1 '" + MULTIPART + "' " + CGI;
  for (const int signal : {SIGTERM, SIGUSR1, SIGHUP, SIGINT, SIGPIPE}) {
    std::FILE* request = popen(command.c_str(), "w");  // its body stays on its way
    std::ignore = std::fwrite(body.data(), 1, body.size(), request);
    std::fflush(request);
    EXPECT_TRUE(comes_true([] { return uploads() == 2; })) << uploads();
    run({"/usr/bin/pkill", "-" + std::to_string(signal), "-xf", CGI});
    EXPECT_EQ(WTERMSIG(pclose(request)), signal);
    EXPECT_EQ(uploads(), 0U) << signal;
  }
}

class WebSession : public WebHost {};

TEST_F(WebSession, IsNothingButItsEightCharacters) {
  const std::string sid = admin.substr(4);
  const std::string file = "/run/fenro/sessions/" + sid;
  fs::copy(file, file + "x");
  write("/etc/sid.conf", read(file));
  std::string other_case = sid;
  for (char& c : other_case)
    c = static_cast<char>(std::isupper(c) != 0 ? std::tolower(c) : std::toupper(c));
  const std::string texts[] = {"",
                               sid + "x",
                               "%20" + sid,
                               "%00" + sid,
                               other_case,
                               "..%2f..%2f..%2fetc%2fsid.conf",
                               std::string(100000, 'a')};
  for (const std::string& text : texts)
    EXPECT_EQ(cgi(SHOW, "type=256&sid=" + text).body, NO_SESSION) << text.substr(0, 40);
  EXPECT_THAT(cgi(SHOW, "type=256&sid=" + sid).body, HasSubstr("office1"));
}

class WebProcess : public WebHost {};

TEST_F(WebProcess, WorksWithStandardStreamsClosed) {
  for (const char* closed :
       {"<&-", ">&-", "2>&-", "<&- >&-", "<&- 2>&-", ">&- 2>&-", "<&- >&- 2>&-"}) {
    SCOPED_TRACE(closed);
    write(VPN_CONF, pptp_client(1));
    const std::string form = admin + "&type=PPTP&name=new&host=127.0.0.1";
    const Result result =
        run({"/bin/sh", "-c", "exec " + std::string(CGI) + ' ' + closed},
            {"SCRIPT_URL=/ormel/config/add", "QUERY_STRING=" + form, "CONTENT_LENGTH=1"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(conf_value("PPTP_CLIENT2", "Profile File"), "new");
    EXPECT_THAT(read(VPN_CONF) + read(LOG), Not(HasSubstr("Content-type")));
  }
}

TEST_F(WebProcess, GivesItsProgramsNothingOfTheClient) {
  const std::string dump = "#!/bin/sh\numask 077\n/usr/bin/env >>/tmp/environments\n";
  for (const char* script : {"vpn_pptp_client.sh", "vpn_common.sh"})
    write(std::string("/etc/init.d/") + script, dump, 0755);
  fs::rename("/usr/sbin/getcfg", "/usr/sbin/getcfg.real");
  write("/usr/sbin/getcfg", dump + "exec /usr/sbin/getcfg.real \"$@\"\n", 0755);
  const Environment secrets{"HTTP_PROXY=http://secret",  "REQUEST_URI=/?secret",
                            "HTTP_COOKIE=secret",        "HTTP_REFERER=https://secret",
                            "HTTP_AUTHORIZATION=secret", "SERVER_NAME=harmless"};
  EXPECT_EQ(cgi("/ormel/config/connect", admin + "&type=PPTP&index=1&x=secret", secrets).status, 0);
  EXPECT_EQ(cgi("/ormel/config/remove", admin + "&type=PPTP&index=1&x=secret", secrets).status, 0);
  fs::rename("/usr/sbin/getcfg.real", "/usr/sbin/getcfg");
  EXPECT_TRUE(comes_true([] { return occurrences(read("/tmp/environments"), "harmless") >= 5; }))
      << "getcfg, start; getcfg, stop, and the route's removal";
  const std::string environments = read("/tmp/environments");
  EXPECT_THAT(environments, AllOf(Not(HasSubstr("secret")), Not(HasSubstr(admin))));
}

constexpr size_t ROTATE_SIZE = 2097152;

class WebLog : public WebHost {
 protected:
  void TearDown() override { fs::remove(PACKAGE); }
  static size_t logged(const std::string& end = "") { return read(LOG + end).size(); }
  // A log that one request fills up to `size` bytes.
  void fill(size_t size) const {
    for (int i = 0; i <= 6; ++i) fs::remove(LOG + (i == 0 ? "" : '.' + std::to_string(i)));
    cgi(SHOW, admin + "&type=256");
    write(LOG, std::string(size - logged(), '.'));
  }
  static constexpr const char* PACKAGE = "/etc/config/pakrix.conf";
};

TEST_F(WebLog, RotatesAtTwoMebibytesOnce) {
  for (const bool full : {false, true}) {
    const size_t size = ROTATE_SIZE - (full ? 0 : 1);
    size_t reached = 0;
    // Again when the process number grew by a digit.
    for (int i = 0; i < 3 && reached != size; ++i) {
      fill(size);
      EXPECT_EQ(cgi(SHOW, admin + "&type=256").status, 0);
      reached = logged() + logged(".1");
    }
    EXPECT_EQ(reached, size);
    EXPECT_EQ(logged(".1"), full ? size : 0);
    EXPECT_EQ(fs::exists(LOG + std::string(".1")), full);
  }
  EXPECT_FALSE(fs::exists(LOG + std::string(".tmp")));
  EXPECT_TRUE(fs::exists(LOG + std::string(".lock")));
  fill(ROTATE_SIZE + 100);
  for (int i = 1; i <= 5; ++i)
    write(LOG + ('.' + std::to_string(i)), "generation " + std::to_string(i));
  cgi(SHOW, admin + "&type=256");
  for (int i = 2; i <= 5; ++i)
    EXPECT_EQ(read(LOG + ('.' + std::to_string(i))), "generation " + std::to_string(i - 1));
  EXPECT_FALSE(fs::exists(LOG + std::string(".6"))) << "five old ones are kept";
}

TEST_F(WebLog, GoesToThePackagesFolder) {
  const std::string longest = "/opt/" + std::string(116, 'a') + "/" + std::string(115, 'b');
  ASSERT_EQ((longest + "/var/log/ORMEL.log").size(), 255U);
  const std::tuple<std::string, std::string, const char*> rows[] = {
      {"", LOG, ""},
      {"[ORMEL]\nInstall_Path = \n", LOG, ""},
      {"[ORMEL]\nInstall_Path = /opt/pakrix\n", "/opt/pakrix/var/log/ORMEL.log", ""},
      {"[ORMEL]\nInstall_Path = " + longest + "\n", longest + "/var/log/ORMEL.log",
       "Error: lock file path too long"},
      {"[ORMEL]\nInstall_Path = " + longest + "c\n", LOG, ""},
      {"[ORMEL]\nInstall_Path = /opt/nowhere\n", "",
       "Error: Failed to create lock file for log rotation\n"},
  };
  for (const auto& [conf, path, says] : rows) {
    SCOPED_TRACE(conf);
    fs::remove(LOG);
    write(PACKAGE, conf);
    if (!path.empty()) fs::create_directories(fs::path(path).parent_path());
    const Result result =
        run({CGI}, {std::string("SCRIPT_URL=") + SHOW, "QUERY_STRING=type=256&" + admin});
    EXPECT_THAT(result.out, HasSubstr("office1"));
    EXPECT_THAT(result.err, StartsWith(says));
    EXPECT_EQ(result.err.empty(), !*says);
    EXPECT_EQ(read(path).find("API: /ormel/config/show=") != std::string::npos, !path.empty());
    EXPECT_EQ(fs::exists(LOG), path == LOG);
    const bool warns = conf.find("bc\n") != std::string::npos;
    EXPECT_EQ(read(LOG).find("Log path too long, falling back to default\n") != std::string::npos,
              warns);
  }
}

}  // namespace
