// Second factors in an appliance: set up over the web, asked for by each login, required and reset
// by root.
// appliance: --web

#include "base/second_factor.h"

#include <fenro/event_log.h>
#include <jansson.h>

#include "base/login_throttle.h"
#include "daemons/mschap/mschap.h"
#include "support/log_rows.h"
#include "support/web_request.h"

using namespace ormel::test;
using fenro::SecondFactor;
using fenro::SecondFactors;

namespace {

constexpr const char* OK = "{\"error\":0}";
constexpr const char* USER = "guest";
constexpr const char* REASON_FILE = "/tmp/reason";
constexpr const char* TOTP_CONF = "/etc/config/ormel/totp.conf";
constexpr const char* TOTP_USERS = "/etc/config/ormel/totp.users";
constexpr const char* POLICY = "/etc/config/vpn_block.conf";
const std::string SECRET = fenro::totp::to_base32("12345678901234567890");

std::string member(const std::string& body, const char* name) {
  const ormel::Json root{json_loads(body.c_str(), 0, nullptr)};
  const json_t* data = json_object_get(root.get(), "data");
  const char* text = json_string_value(json_object_get(data ? data : root.get(), name));
  return text ? text : "";
}

std::string code_now(const std::string& secret = SECRET) {
  std::string bytes;
  EXPECT_TRUE(fenro::totp::parse_base32(secret, bytes));
  return fenro::totp::code_at(bytes, fenro::totp::step_at(std::time(nullptr)));
}

std::string base64(const std::string& text) {
  return run({"/usr/bin/base64", "-w0"}, {}, text).out;
}

Result ctl(std::vector<std::string> words) {
  words.insert(words.begin(), "/usr/sbin/ormelctl");
  return run(words);
}

int events(const char* text) {
  return naslog_event_query_count_ex(0, "", "", USER, "", "", text, "", "");
}

// Each code counts once; this makes the present one valid again.
void forget_used_steps() {
  ASSERT_TRUE(SecondFactors{}.change(USER, [](SecondFactor& factor) {
    factor.used = 0;
    return true;
  }));
}

class SecondFactorLogin : public testing::Test {
 protected:
  void SetUp() override {
    for (const char* file : {TOTP_CONF, TOTP_USERS, POLICY}) fs::remove(file);
    fs::remove_all("/run/fenro/login");
    write("/etc/config/vpn_user_ex.conf", "guest:1:1:1:0:1\nadmin:1:1:1:0:1\n");
    bus(ormel::log_db::SERVICE, ormel::log_db::CONN_SERVER_LOG.clean);
    run({"/usr/bin/mibsh", "@/var/run/ormeld.sock.db_privilege_user_block_clean"});
    // The appliance's own may end in six digits, as a code does.
    run({"/usr/sbin/chpasswd"}, {}, std::string(USER) + ':' + password + '\n');
  }
  static std::string password_of(const std::string& user) {
    std::string text = read("/var/lib/appliance/password." + user);
    return text.substr(0, text.find('\n'));
  }
  static void enrol(bool required = false) {
    ASSERT_TRUE(SecondFactors{}.change(USER, [&](SecondFactor& factor) {
      factor = {};
      factor.state = SecondFactor::State::On;
      factor.secret = SECRET;
      factor.required = required;
      return true;
    }));
  }
  static std::vector<std::string> login(const std::string& typed, const std::string& user = USER) {
    fs::remove(REASON_FILE);
    return {"username=" + user, "password=" + typed, "untrusted_ip=203.0.113.9",
            std::string("auth_failed_reason_file=") + REASON_FILE};
  }
  // The login hook of the OpenVPN server.
  static bool hook_admits(const std::string& typed, const std::string& user = USER) {
    return run({"/usr/sbin/ormel.sauth"}, login(typed, user)).status == 0;
  }
  static std::string log_in(const std::string& typed, const std::string& code = {}) {
    return https("/fenro/login",
                 {"--data-urlencode", std::string("user=") + USER, "--data-urlencode",
                  "password=" + typed, "--data-urlencode", "code=" + code})
        .body;
  }
  static std::vector<std::string> reasons() {
    std::vector<std::string> all;
    for (const auto& row : log_rows<db_conn_server_log>(ormel::log_db::CONN_SERVER_LOG.query))
      all.emplace_back(row.device_info);
    return all;
  }
  static bool admits_by_mschap(const std::string& password) {
    using namespace fenro::mschap;
    constexpr const char* CHALLENGE = "D02E4386BCE91226";
    NtHash hash{};
    Challenge challenge{};
    Response response{};
    EXPECT_TRUE(nt_hash(password, hash) && parse_hex(CHALLENGE, challenge));
    expected_response(hash, challenge, response);
    write("/etc/ppp/chap-secrets", "\"guest\"\tpptpd\t&/etc/config/smbpasswd\t*\n");
    return run({"/usr/lib/fenro/fenro-mschap", "pptpd"}, {},
               std::string("Username: guest\nLANMAN-Challenge: ") + CHALLENGE +
                   "\nNT-response: " + to_hex(response) + "\n.\n")
        .out.starts_with("Authenticated: Yes\n");
  }
  const std::string password = "right-password";
};

TEST_F(SecondFactorLogin, IsSetUpOverTheWebAndAskedForUntilItIsOff) {
  const std::string sid = member(log_in(password), "sid");
  ASSERT_EQ(sid.size(), 8U);
  const std::string other = member(log_in(password), "sid");
  const auto web = [&](const std::string& route, const std::string& form = {}) {
    return https("/ormel/my/totp_" + route, {"--data", "sid=" + sid + form}).body;
  };
  EXPECT_THAT(web("confirm", "&code=123456"), HasSubstr("has not begun"));
  const std::string proof = "&password=" + password;
  EXPECT_THAT(web("begin"), HasSubstr("\"error\":36")) << "a session alone is not enough";
  EXPECT_THAT(web("begin", "&password=wrong"), HasSubstr("\"error\":38"));
  const std::string begun = web("begin", proof);
  const std::string secret = member(begun, "secret");
  EXPECT_THAT(member(begun, "uri"), MatchesRegex("otpauth://totp/[^?]*:guest\\?secret=" + secret +
                                                 "&issuer=.*&algorithm=SHA1&digits=6&period=30"));
  EXPECT_THAT(log_in(password), HasSubstr("\"error\":0")) << "nothing is on yet";
  EXPECT_THAT(web("confirm", "&code=12345"), HasSubstr("\"error\":9"));
  const std::string code = code_now(secret);
  const std::string confirmed = web("confirm", "&code=" + code);
  const ormel::Json root{json_loads(confirmed.c_str(), 0, nullptr)};
  const json_t* recovery = json_object_get(json_object_get(root.get(), "data"), "recovery");
  ASSERT_EQ(json_array_size(recovery), fenro::RECOVERY_CODES) << confirmed;
  const auto spare = [&](size_t at) -> std::string {
    return json_string_value(json_array_get(recovery, at));
  };
  EXPECT_THAT(web("begin"), HasSubstr("switch it off first"));
  EXPECT_THAT(https("/ormel/my/show", {"--data", "sid=" + other}).body, HasSubstr("\"error\":39"))
      << "a password alone has begun it";

  EXPECT_THAT(log_in(password), HasSubstr("session pass"));
  EXPECT_THAT(log_in(password, code), HasSubstr("session pass")) << "it has confirmed the set-up";
  EXPECT_THAT(log_in(password, spare(0)), HasSubstr("\"error\":0"));
  EXPECT_THAT(log_in(password, spare(0)), HasSubstr("session pass"));
  forget_used_steps();
  fs::remove_all("/run/fenro/login");
  EXPECT_THAT(log_in(password + code_now(secret)), HasSubstr("\"error\":0")) << "in one field";
  forget_used_steps();
  EXPECT_THAT(log_in(password, code_now(secret).insert(3, " ")), HasSubstr("\"error\":0"));
  EXPECT_TRUE(admits_by_mschap(password)) << "the stored hash is that of the password alone";

  write(POLICY, R"({"global": {"enable": false, "limit": 5, "time": 30}})");
  for (int i = 0; i < fenro::MOST_MISSES; ++i)
    EXPECT_THAT(web("off", proof + "&code=000000"), HasSubstr("\"error\":9"));
  EXPECT_THAT(web("off", proof + "&code=" + spare(7)), HasSubstr("\"error\":45"))
      << "a session alone guesses none, whatever the policy is";
  EXPECT_THAT(log_in(password, spare(6)), HasSubstr("\"error\":0"));
  EXPECT_EQ(ctl({"user", "totp", USER, "require"}).status, 0);
  EXPECT_THAT(web("off", "&code=" + spare(7)), HasSubstr("\"error\":36"));
  EXPECT_THAT(web("off", "&password=wrong&code=" + spare(7)), HasSubstr("\"error\":38"));
  const std::string later = member(log_in(password, spare(5)), "sid");
  EXPECT_EQ(web("off", proof + "&code=" + spare(7)), OK) << "the code was not used up";
  EXPECT_THAT(https("/ormel/my/totp_begin", {"--data", "sid=" + later}).body,
              HasSubstr("\"error\":39"))
      << "it has not given the password just now";
  EXPECT_THAT(web("confirm", "&code=123456"), HasSubstr("has not begun")) << "this one stays";
  EXPECT_THAT(log_in(password), HasSubstr("\"enrol\":true")) << "it stays required";
  EXPECT_EQ(ctl({"user", "totp", USER, "optional"}).status, 0);
  EXPECT_THAT(log_in(password), HasSubstr("\"error\":0"));
  EXPECT_FALSE(fs::exists(TOTP_CONF));
  EXPECT_TRUE(hook_admits("SCRV1:" + base64(password) + ':' + base64("any")))
      << "with the profile that asks for a code";
  EXPECT_GT(events("(code-used)"), 0);
  EXPECT_EQ(events("(code-missing)"), 1);
  for (const std::string& hidden : {secret, spare(0), spare(7), password})
    EXPECT_EQ(
        run({"/bin/grep", "-rF", hidden, "/var/log", "/run/fenro", "/var/lib/ormel/audit"}).out,
        "");
}

TEST_F(SecondFactorLogin, TheHookTellsTheAdministratorAloneWhatIsWrong) {
  write(POLICY, R"({"global": {"enable": true, "limit": 4, "time": 30}})");
  EXPECT_TRUE(hook_admits(password));
  enrol();
  EXPECT_TRUE(hook_admits(password_of("admin"), "admin")) << "another user notices nothing";
  const std::string code = code_now();
  const std::string wrong = code == "000000" ? "000001" : "000000";
  EXPECT_FALSE(hook_admits(password));
  EXPECT_FALSE(hook_admits(password + wrong));
  EXPECT_FALSE(hook_admits("wrong" + code)) << "the code stays good";
  EXPECT_TRUE(hook_admits("SCRV1:" + base64(password) + ':' + base64(code)))
      << "and what was counted is forgotten";
  EXPECT_FALSE(hook_admits(password + code));
  EXPECT_FALSE(fs::exists(REASON_FILE)) << "the client learns nothing";
  EXPECT_THAT(reasons(), UnorderedElementsAre(HasSubstr("code-missing"), HasSubstr("code-wrong"),
                                              "wrong password", HasSubstr("code-used")));
  for (int i = 0; i < 3; ++i) EXPECT_FALSE(hook_admits(password + wrong));
  forget_used_steps();
  EXPECT_FALSE(hook_admits(password + code_now())) << "blocked by wrong codes";
  EXPECT_THAT(reasons(), testing::Contains(HasSubstr("blocked")));
}

// A session is no way around the limits of the login.
TEST_F(SecondFactorLogin, WrongPasswordsForItCountAtTheLoginToo) {
  const std::string sid = member(log_in(password), "sid");
  const auto begin = [&](const std::string& typed) {
    return https("/ormel/my/totp_begin", {"--data", "sid=" + sid + "&password=" + typed}).body;
  };
  const fenro::LoginThrottle throttle{fenro::WEB_LOGINS};
  for (int i = 1; i < fenro::LoginThrottle::ADDRESS_LIMIT; ++i)
    ASSERT_TRUE(throttle.admit("nobody", "127.0.0.1", fenro::LoginThrottle::clock()));
  EXPECT_THAT(begin("wrong"), HasSubstr("\"error\":38"));
  EXPECT_THAT(ctl({"log", "events"}).out,
              HasSubstr("Wrong password of guest for a change of the second factor"));
  EXPECT_THAT(begin(password), HasSubstr("too many wrong passwords: try again in"));
  EXPECT_THAT(https("/fenro/login", {"--data", "user=guest&password=" + password}).head,
              HasSubstr(" 429"));
  EXPECT_EQ(SecondFactors{}.of(USER).state, SecondFactor::State::Off);
}

// Who has the password and a session could else try codes at the login without an end.
TEST_F(SecondFactorLogin, ThePasswordAloneForgivesNoWrongCode) {
  const std::string sid = member(log_in(password), "sid");
  enrol();
  const fenro::LoginThrottle throttle{fenro::WEB_LOGINS};
  for (int i = 1; i < fenro::LoginThrottle::USER_LIMIT; ++i)
    ASSERT_TRUE(
        throttle.admit(USER, "198.51.100." + std::to_string(i), fenro::LoginThrottle::clock()));
  const std::string form = "sid=" + sid + "&password=" + password + "&code=";
  EXPECT_THAT(https("/ormel/my/totp_off", {"--data", form + "000000"}).body,
              HasSubstr("\"error\":9"));
  EXPECT_THAT(https("/ormel/my/totp_off", {"--data", form + code_now()}).body,
              HasSubstr("too many wrong passwords"));
  fs::remove_all("/run/fenro/login");
  EXPECT_EQ(https("/ormel/my/totp_off", {"--data", form + code_now()}).body, OK);
}

// The other logins by password, and the profile that asks for the code separately.
TEST_F(SecondFactorLogin, PapTakesACodeAndTheProfileAsksForOne) {
  write("/etc/ppp/pap-secrets", "\"guest\"\tpptpd\t@login\t*\n");
  const auto pap = [&](const std::string& typed) {
    return run({"/usr/lib/fenro/fenro-mschap", "pptpd", "pap"}, {},
               std::string(USER) + '\n' + typed + '\n')
        .status;
  };
  write(VPN_CONF, "[OPENVPN]\nEnable = TRUE\n");
  write("/etc/openvpn/keys/ca.crt", "a certificate\n");
  const std::string form = "sid=" + member(log_in(password), "sid");
  const auto profile = [&] { return https("/ormel/my/profile", {"--data", form}).body; };
  constexpr const char* ASKS = "auth-user-pass\nstatic-challenge \"Code\" 1\n";
  EXPECT_THAT(profile(), testing::AllOf(HasSubstr("auth-user-pass\n"), Not(HasSubstr(ASKS))));
  EXPECT_EQ(pap(password), 0);
  enrol();
  EXPECT_THAT(profile(), HasSubstr(ASKS));
  EXPECT_EQ(pap(password), 1);
  EXPECT_EQ(pap(password + code_now()), 0);
  EXPECT_THAT(https("/ormel/my/show", {"--data", form}).body,
              HasSubstr(R"("second_factor":{"recovery":0,"required":false,"state":"on"})"));
  EXPECT_EQ(run({"/usr/sbin/fenro-password", USER}, {}, password + '\n').status, 0)
      << "root stores a hash, and does not log in";
}

TEST_F(SecondFactorLogin, ARequirementCanBeTriedAndTakenBack) {
  const std::string sid = member(log_in(password), "sid");
  const auto session = [&] { return https("/ormel/my/show", {"--data", "sid=" + sid}).body; };
  EXPECT_EQ(ctl({"--dry-run", "user", "totp", USER, "require"}).status, 0);
  EXPECT_TRUE(hook_admits(password));
  EXPECT_THAT(session(), HasSubstr("\"error\":0"));
  EXPECT_EQ(ctl({"user", "totp", USER, "require"}).status, 0);
  EXPECT_FALSE(hook_admits(password));
  const Result undone = ctl({"undo", "--yes"});
  EXPECT_EQ(undone.status, 0) << undone.err;
  EXPECT_TRUE(hook_admits(password));
  EXPECT_THAT(read("/etc/config/vpn_user_ex.conf"), HasSubstr("guest:1:1:1:0:1"));
}

// Users' actions evict no snapshot, and no restore takes them back.
TEST_F(SecondFactorLogin, NothingButARequirementGoesBack) {
  EXPECT_EQ(ctl({"user", "totp", USER, "require"}).status, 0);
  enrol(true);
  const auto snapshots = [] { return ctl({"undo", "list", "--json"}).out; };
  const std::string before = snapshots();
  const std::string code = code_now();
  EXPECT_TRUE(hook_admits(password + code));
  EXPECT_EQ(ctl({"user", "totp", USER, "reset"}).status, 0);
  const std::string sid = member(log_in(password), "sid");
  for (int i = 0; i < 3; ++i)
    EXPECT_THAT(https("/ormel/my/totp_begin", {"--data", "sid=" + sid}).body, HasSubstr("secret"))
        << "without the password, which has begun this session";
  EXPECT_EQ(snapshots(), before);
  EXPECT_EQ(run({"/bin/grep", "-rF", SECRET, "/var/lib/ormel"}).out, "");
  const Result undone = ctl({"undo", "--yes"});
  EXPECT_EQ(undone.status, 0) << undone.err;
  EXPECT_FALSE(SecondFactors{}.of(USER).required);
  EXPECT_TRUE(hook_admits(password)) << "what root has reset stays so";
}

// Whether the password was right must not show in how long the answer takes.
TEST_F(SecondFactorLogin, AWrongCodeTakesTheTimeOfAWrongPassword) {
  enrol();
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(hook_admits(password));
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(900));
}

TEST_F(SecondFactorLogin, ACodeLetsOneOf64LoginsIn) {
  enrol();
  constexpr int LOGINS = 64;
  write("/tmp/login", "username=guest\npassword=" + password + code_now() + '\n');
  const std::string script = "export $(cat /tmp/login) untrusted_ip=203.0.113.9; for i in $(seq " +
                             std::to_string(LOGINS) +
                             "); do /usr/sbin/ormel.sauth && echo in >>/tmp/admitted & done; wait";
  fs::remove("/tmp/admitted");
  run({"/bin/sh", "-c", script});
  EXPECT_EQ(read("/tmp/admitted"), "in\n");
  EXPECT_EQ(reasons().size(), LOGINS - 1U);
}

TEST_F(SecondFactorLogin, IsRequiredAndResetByRoot) {
  const std::string old = member(log_in(password), "sid");
  EXPECT_TRUE(admits_by_mschap(password));
  const Result required = ctl({"user", "totp", USER, "require"});
  EXPECT_EQ(required.status, 0) << required.err;
  EXPECT_THAT(required.out + required.err, HasSubstr("pptp and l2tp cannot carry a code"));
  EXPECT_THAT(read("/etc/config/vpn_user_ex.conf"), HasSubstr("guest:0:1:0:0:1"));
  EXPECT_FALSE(admits_by_mschap(password)) << "even with the right";
  EXPECT_FALSE(hook_admits(password));
  EXPECT_THAT(read(REASON_FILE), HasSubstr("set up your second factor"));
  EXPECT_FALSE(hook_admits("wrong"));
  EXPECT_FALSE(fs::exists(REASON_FILE));

  // A session may only set up the factor, and none from before may do that without the password.
  const std::string answer = log_in(password);
  EXPECT_THAT(answer, HasSubstr("\"enrol\":true"));
  const std::string sid = member(answer, "sid");
  EXPECT_THAT(https("/ormel/config/show", {"--data", "type=256&sid=" + sid}).body,
              HasSubstr("\"error\":45"));
  const auto begin = [](const std::string& session) {
    return https("/ormel/my/totp_begin", {"--data", "sid=" + session}).body;
  };
  EXPECT_THAT(begin(old), HasSubstr("\"error\":39"));
  const std::string secret = member(begin(sid), "secret");
  EXPECT_THAT(
      https("/ormel/my/totp_confirm", {"--data", "sid=" + sid + "&code=" + code_now(secret)}).body,
      HasSubstr("recovery"));
  EXPECT_THAT(https("/ormel/config/show", {"--data", "type=256&sid=" + sid}).body,
              HasSubstr("\"error\":0"));
  forget_used_steps();
  EXPECT_TRUE(hook_admits(password + code_now(secret)));
  EXPECT_THAT(ctl({"user", "totp", USER, "status"}).out, HasSubstr("on, required"));

  const Result again = ctl({"user", "totp", USER, "require"});
  EXPECT_EQ(again.status, 0) << again.err;
  EXPECT_THAT(begin(sid), HasSubstr("switch it off first")) << "who has one stays logged in";
  EXPECT_EQ(ctl({"user", "totp", USER, "reset"}).status, 0);
  EXPECT_THAT(begin(sid), HasSubstr("\"error\":39"));
  EXPECT_THAT(log_in(password), HasSubstr("\"enrol\":true"));
  EXPECT_EQ(ctl({"user", "totp", USER, "optional"}).status, 0);
  EXPECT_TRUE(hook_admits(password));
  EXPECT_EQ(ctl({"user", "totp", USER, "reset"}).status, 3);
  EXPECT_EQ(ctl({"user", "totp", "nobody-here", "require"}).status, 3);
  EXPECT_EQ(ctl({"user", "totp", USER, "maybe"}).status, 2);
  EXPECT_THAT(ctl({"audit"}).out, HasSubstr("user totp"));
}

TEST_F(SecondFactorLogin, ADamagedFileKeepsOutThoseWhoHaveOne) {
  enrol();
  write(TOTP_CONF, "");
  EXPECT_FALSE(hook_admits(password));
  EXPECT_FALSE(hook_admits(password + code_now()));
  EXPECT_FALSE(admits_by_mschap(password));
  EXPECT_THAT(reasons(), testing::Contains(HasSubstr("code-damaged")));
  EXPECT_TRUE(hook_admits(password_of("admin"), "admin"));
  EXPECT_EQ(ctl({"user", "totp", USER, "reset"}).status, 0);
  EXPECT_TRUE(hook_admits(password));
}

}  // namespace
