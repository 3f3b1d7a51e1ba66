// Second factors in an appliance: set up over the web, asked for by each login, required and reset
// by root.
// appliance: --web

#include "base/second_factor.h"

#include <fenro/event_log.h>

#include "base/base64.h"
#include "base/login_throttle.h"
#include "support/log_rows.h"
#include "support/ormelctl.h"
#include "support/web_request.h"

using namespace ormel::test;
using fenro::LoginThrottle;
using fenro::SecondFactor;
using fenro::SecondFactors;

namespace {

constexpr const char* OK = "{\"error\":0}";
constexpr const char* USER = "guest";
constexpr const char* REASON_FILE = "/tmp/reason";
constexpr const char* TOTP_CONF = "/etc/config/ormel/totp.conf";
constexpr const char* POLICY = "/etc/config/vpn_block.conf";
const std::string SECRET = fenro::totp::to_base32("12345678901234567890");

std::string code_now(const std::string& secret = SECRET) {
  std::string bytes;
  EXPECT_TRUE(fenro::totp::parse_base32(secret, bytes));
  return fenro::totp::code_at(bytes, fenro::totp::step_at(std::time(nullptr)));
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
    for (const char* file : {TOTP_CONF, "/etc/config/ormel/totp.users", POLICY}) fs::remove(file);
    fs::remove_all("/run/fenro/login");
    write("/etc/config/vpn_user_ex.conf", "guest:1:1:1:0:1\nadmin:1:1:1:0:1\n");
    bus(ormel::log_db::SERVICE, ormel::log_db::CONN_SERVER_LOG.clean);
    run({"/usr/bin/mibsh", "@/var/run/ormeld.sock.db_privilege_user_block_clean"});
    // The appliance's own may end in six digits, as a code does.
    run({"/usr/sbin/chpasswd"}, {}, std::string(USER) + ':' + password + '\n');
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
  // The login hook of the OpenVPN server.
  static bool hook_admits(const std::string& typed, const std::string& user = USER) {
    fs::remove(REASON_FILE);
    return run({"/usr/sbin/ormel.sauth"},
               {"username=" + user, "password=" + typed, "untrusted_ip=203.0.113.9",
                std::string("auth_failed_reason_file=") + REASON_FILE})
               .status == 0;
  }
  // An answer of the web interface.
  static std::string ask(const std::string& route, const std::string& form) {
    return https("/ormel/" + route, {"--data", form}).body;
  }
  static std::string log_in(const std::string& typed, const std::string& code = {}) {
    return https("/fenro/login", {"--data-urlencode", "user=guest", "--data-urlencode",
                                  "password=" + typed, "--data-urlencode", "code=" + code})
        .body;
  }
  static std::vector<std::string> reasons() {
    std::vector<std::string> all;
    for (const auto& row : log_rows<db_conn_server_log>(ormel::log_db::CONN_SERVER_LOG.query))
      all.emplace_back(row.device_info);
    return all;
  }
  // The PPTP server, with what MS-CHAP makes of that password.
  static bool admits_by_mschap() {
    write("/etc/ppp/chap-secrets", "\"guest\"\tpptpd\t&/etc/config/smbpasswd\t*\n");
    return run({"/usr/lib/fenro/fenro-mschap", "pptpd"}, {},
               "Username: guest\nLANMAN-Challenge: D02E4386BCE91226\n"
               "NT-response: E61BBB96EBED717C45801EBA70130EFAB75BE72A5818F86E\n.\n")
        .out.starts_with("Authenticated: Yes\n");
  }
  const std::string password = "right-password";
};

TEST_F(SecondFactorLogin, IsSetUpOverTheWebAndAskedForUntilItIsOff) {
  const std::string sid = datum(log_in(password), "sid");
  ASSERT_EQ(sid.size(), 8U);
  const std::string other = datum(log_in(password), "sid");
  const auto web = [&](const std::string& route, const std::string& form = {}) {
    return ask("my/totp_" + route, "sid=" + sid + form);
  };
  EXPECT_THAT(web("confirm", "&code=123456"), HasSubstr("has not begun"));
  const std::string proof = "&password=" + password;
  EXPECT_EQ(error_of(web("begin")), 36) << "a session alone is not enough";
  EXPECT_EQ(error_of(web("begin", "&password=wrong")), 38);
  const std::string begun = web("begin", proof);
  const std::string secret = datum(begun, "secret");
  EXPECT_THAT(datum(begun, "uri"), MatchesRegex("otpauth://totp/[^?]*:guest\\?secret=" + secret +
                                                "&issuer=.*&algorithm=SHA1&digits=6&period=30"));
  EXPECT_EQ(error_of(log_in(password)), 0) << "nothing is on yet";
  EXPECT_EQ(error_of(web("confirm", "&code=12345")), 9);
  const std::string code = code_now(secret);
  const std::string confirmed = web("confirm", "&code=" + code);
  const ormel::Json codes = parsed(datum(confirmed, "recovery"));
  ASSERT_EQ(json_array_size(codes.get()), fenro::RECOVERY_CODES) << confirmed;
  const auto spare = [&](size_t at) -> std::string {
    return json_string_value(json_array_get(codes.get(), at));
  };
  EXPECT_THAT(web("begin"), HasSubstr("switch it off first"));
  EXPECT_EQ(error_of(ask("my/show", "sid=" + other)), 39) << "a password alone has begun it";

  EXPECT_THAT(log_in(password), HasSubstr("session pass"));
  EXPECT_THAT(log_in(password, code), HasSubstr("session pass")) << "it has confirmed the set-up";
  EXPECT_EQ(error_of(log_in(password, spare(0))), 0);
  EXPECT_THAT(log_in(password, spare(0)), HasSubstr("session pass"));
  forget_used_steps();
  fs::remove_all("/run/fenro/login");
  EXPECT_EQ(error_of(log_in(password + code_now(secret))), 0) << "in one field";
  forget_used_steps();
  EXPECT_EQ(error_of(log_in(password, code_now(secret).insert(3, " "))), 0);
  EXPECT_TRUE(admits_by_mschap()) << "the stored hash is that of the password alone";

  write(POLICY, R"({"global": {"enable": false, "limit": 5, "time": 30}})");
  for (int i = 0; i < fenro::MOST_MISSES; ++i)
    EXPECT_EQ(error_of(web("off", proof + "&code=000000")), 9);
  EXPECT_EQ(error_of(web("off", proof + "&code=" + spare(7))), 45)
      << "a session alone guesses none, whatever the policy is";
  EXPECT_EQ(error_of(log_in(password, spare(6))), 0);
  EXPECT_EQ(ctl("user totp guest require").status, 0);
  EXPECT_EQ(error_of(web("off", "&code=" + spare(7))), 36);
  EXPECT_EQ(error_of(web("off", "&password=wrong&code=" + spare(7))), 38);
  const std::string later = datum(log_in(password, spare(5)), "sid");
  EXPECT_EQ(web("off", proof + "&code=" + spare(7)), OK) << "the code was not used up";
  EXPECT_EQ(error_of(ask("my/totp_begin", "sid=" + later)), 39)
      << "it has not given the password just now";
  EXPECT_THAT(web("confirm", "&code=123456"), HasSubstr("has not begun")) << "this one stays";
  EXPECT_THAT(log_in(password), HasSubstr("\"enrol\":true")) << "it stays required";
  EXPECT_EQ(ctl("user totp guest optional").status, 0);
  EXPECT_EQ(error_of(log_in(password)), 0);
  EXPECT_FALSE(fs::exists(TOTP_CONF));
  EXPECT_TRUE(hook_admits("SCRV1:" + fenro::to_base64(password) + ':' + fenro::to_base64("any")))
      << "with the profile that asks for a code";
  EXPECT_GT(events("(code-used)"), 0);
  EXPECT_EQ(events("(code-missing)"), 1);
  for (const std::string& hidden : {secret, spare(0), spare(7), password})
    EXPECT_EQ(shell("grep -rF " + hidden + " /var/log /run/fenro /var/lib/ormel/audit").out, "");
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
  EXPECT_TRUE(hook_admits("SCRV1:" + fenro::to_base64(password) + ':' + fenro::to_base64(code)))
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
  const std::string sid = datum(log_in(password), "sid");
  const auto begin = [&](const std::string& typed) {
    return ask("my/totp_begin", "sid=" + sid + "&password=" + typed);
  };
  const LoginThrottle throttle{fenro::WEB_LOGINS};
  for (int i = 1; i < LoginThrottle::ADDRESS_LIMIT; ++i)
    ASSERT_TRUE(throttle.admit("nobody", "127.0.0.1", LoginThrottle::clock()));
  EXPECT_EQ(error_of(begin("wrong")), 38);
  EXPECT_THAT(ctl("log events").out,
              HasSubstr("Wrong password of guest for a change of the second factor"));
  EXPECT_THAT(begin(password), HasSubstr("too many wrong passwords: try again in"));
  EXPECT_THAT(https("/fenro/login", {"--data", "user=guest&password=" + password}).head,
              HasSubstr(" 429"));
  EXPECT_EQ(SecondFactors{}.of(USER).state, SecondFactor::State::Off);
}

// Who has the password and a session could else try codes at the login without an end.
TEST_F(SecondFactorLogin, ThePasswordAloneForgivesNoWrongCode) {
  const std::string sid = datum(log_in(password), "sid");
  enrol();
  const LoginThrottle throttle{fenro::WEB_LOGINS};
  for (int i = 1; i < LoginThrottle::USER_LIMIT; ++i)
    ASSERT_TRUE(throttle.admit(USER, "198.51.100." + std::to_string(i), LoginThrottle::clock()));
  const std::string form = "sid=" + sid + "&password=" + password + "&code=";
  EXPECT_EQ(error_of(ask("my/totp_off", form + "000000")), 9);
  EXPECT_THAT(ask("my/totp_off", form + code_now()), HasSubstr("too many wrong passwords"));
  fs::remove_all("/run/fenro/login");
  EXPECT_EQ(ask("my/totp_off", form + code_now()), OK);
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
  const std::string form = "sid=" + datum(log_in(password), "sid");
  const auto profile = [&] { return ask("my/profile", form); };
  constexpr const char* ASKS = "auth-user-pass\nstatic-challenge \"Code\" 1\n";
  EXPECT_THAT(profile(), testing::AllOf(HasSubstr("auth-user-pass\n"), Not(HasSubstr(ASKS))));
  EXPECT_EQ(pap(password), 0);
  enrol();
  EXPECT_THAT(profile(), HasSubstr(ASKS));
  EXPECT_EQ(pap(password), 1);
  EXPECT_EQ(pap(password + code_now()), 0);
  EXPECT_THAT(ask("my/show", form),
              HasSubstr(R"("second_factor":{"recovery":0,"required":false,"state":"on"})"));
  EXPECT_EQ(run({"/usr/sbin/fenro-password", USER}, {}, password + '\n').status, 0)
      << "root stores a hash, and does not log in";
}

// Users' actions evict no snapshot, and no restore takes them back.
TEST_F(SecondFactorLogin, ARequirementCanBeTriedAndGoesBackAlone) {
  const std::string earlier = datum(log_in(password), "sid");
  done("--dry-run user totp guest require");
  EXPECT_TRUE(hook_admits(password));
  EXPECT_EQ(error_of(ask("my/show", "sid=" + earlier)), 0);
  done("user totp guest require");
  EXPECT_FALSE(hook_admits(password));
  enrol(true);
  const auto snapshots = [] { return ctl("undo list --json").out; };
  const std::string before = snapshots();
  EXPECT_TRUE(hook_admits(password + code_now()));
  EXPECT_EQ(ctl("user totp guest reset").status, 0);
  const std::string sid = datum(log_in(password), "sid");
  for (int i = 0; i < 3; ++i)
    EXPECT_THAT(ask("my/totp_begin", "sid=" + sid), HasSubstr("secret"))
        << "without the password, which has begun this session";
  EXPECT_EQ(snapshots(), before);
  EXPECT_EQ(shell("grep -rF " + SECRET + " /var/lib/ormel").out, "");
  done("undo --yes");
  EXPECT_FALSE(SecondFactors{}.of(USER).required);
  EXPECT_THAT(read("/etc/config/vpn_user_ex.conf"), HasSubstr("guest:1:1:1:0:1"));
  EXPECT_TRUE(hook_admits(password)) << "what root has reset stays so";
}

// Whether the password was right must not show in how long the answer takes.
TEST_F(SecondFactorLogin, AWrongCodeTakesTheTimeOfAWrongPassword) {
  enrol();
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(hook_admits(password));
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(900));
}

TEST_F(SecondFactorLogin, IsRequiredAndResetByRoot) {
  const std::string old = datum(log_in(password), "sid");
  EXPECT_TRUE(admits_by_mschap());
  const Result required = done("user totp guest require");
  EXPECT_THAT(required.out + required.err, HasSubstr("pptp and l2tp cannot carry a code"));
  EXPECT_THAT(read("/etc/config/vpn_user_ex.conf"), HasSubstr("guest:0:1:0:0:1"));
  EXPECT_FALSE(admits_by_mschap()) << "even with the right";
  EXPECT_FALSE(hook_admits(password));
  EXPECT_THAT(read(REASON_FILE), HasSubstr("set up your second factor"));
  EXPECT_FALSE(hook_admits("wrong"));
  EXPECT_FALSE(fs::exists(REASON_FILE));

  // A session may only set up the factor, and none from before may do that without the password.
  const std::string answer = log_in(password), sid = datum(answer, "sid");
  EXPECT_THAT(answer, HasSubstr("\"enrol\":true"));
  EXPECT_EQ(error_of(ask("config/show", "type=256&sid=" + sid)), 45);
  const auto begin = [](const std::string& id) { return ask("my/totp_begin", "sid=" + id); };
  EXPECT_EQ(error_of(begin(old)), 39);
  const std::string secret = datum(begin(sid), "secret");
  EXPECT_THAT(ask("my/totp_confirm", "sid=" + sid + "&code=" + code_now(secret)),
              HasSubstr("recovery"));
  EXPECT_EQ(error_of(ask("config/show", "type=256&sid=" + sid)), 0);
  forget_used_steps();
  EXPECT_TRUE(hook_admits(password + code_now(secret)));
  EXPECT_THAT(ctl("user totp guest status").out, HasSubstr("on, required"));

  done("user totp guest require");
  EXPECT_THAT(begin(sid), HasSubstr("switch it off first")) << "who has one stays logged in";
  EXPECT_EQ(ctl("user totp guest reset").status, 0);
  EXPECT_EQ(error_of(begin(sid)), 39);
  EXPECT_THAT(log_in(password), HasSubstr("\"enrol\":true"));
  EXPECT_EQ(ctl("user totp guest optional").status, 0);
  EXPECT_TRUE(hook_admits(password));
  EXPECT_EQ(ctl("user totp guest reset").status, 3);
  EXPECT_EQ(ctl("user totp absent require").status, 3);
  EXPECT_EQ(ctl("user totp guest maybe").status, 2);
  EXPECT_THAT(ctl("audit").out, HasSubstr("user totp"));
}

TEST_F(SecondFactorLogin, ADamagedFileKeepsOutThoseWhoHaveOne) {
  enrol();
  write(TOTP_CONF, "");
  EXPECT_FALSE(hook_admits(password));
  EXPECT_FALSE(hook_admits(password + code_now()));
  EXPECT_FALSE(admits_by_mschap());
  EXPECT_THAT(reasons(), testing::Contains(HasSubstr("code-damaged")));
  EXPECT_TRUE(hook_admits(password_of("admin"), "admin"));
  EXPECT_EQ(ctl("user totp guest reset").status, 0);
  EXPECT_TRUE(hook_admits(password));
}

}  // namespace
