// Rights, the policy on failed logins and the users over the web, with the real store, log database
// and settings daemon, and with ones that say anything.
#include "support/log_rows.h"
#include "support/web_request.h"

using namespace ormel::test;
namespace log_db = ormel::log_db;

namespace {

constexpr const char* STORE = "/etc/config/vpn_user_ex.conf";
constexpr const char* PAP = "/etc/ppp/pap-secrets";
constexpr const char* CHAP = "/etc/ppp/chap-secrets";
constexpr const char* POLICY = "/etc/config/vpn_block.conf";
constexpr const char* PASSWD = "/etc/passwd";
constexpr const char* DONE = R"({"error":0})";
constexpr const char* KICK = "vpn_common.sh";
constexpr const char* DEFAULTS = R"({"global":{"enable":true,"limit":5,"time":30}})";

std::string shown(const char* enable, int limit, int time, const std::string& users) {
  return std::string(R"({"data":{"enable":)") + enable + ",\"limit\":" + std::to_string(limit) +
         ",\"time\":" + std::to_string(time) + ",\"user\":[" + users + R"(]},"error":0})";
}

class WebPrivilege : public WebHost {
 protected:
  void SetUp() override {
    WebHost::SetUp();
    for (const char* file : {STORE, PAP, CHAP, POLICY}) fs::remove(file);
    bus(log_db::SERVICE, log_db::PRIVILEGE_USER_BLOCK.clean);
  }
  std::string post(const std::string& action, const std::string& form = "") const {
    return cgi("/ormel/privilege/" + action, "", {"CONTENT_LENGTH=1"}, admin + form).body;
  }
  static std::string notice(const char* id, const std::string& text, const std::string& more) {
    const char* level = std::string(id) == "0005" ? "warn" : "info";
    return std::string("send|-A|A238|-C|C001|-M|") + id + "|-l|" + level + "|-t|3|" + text +
           "|ORMEL Service|" + more;
  }
  static void fail_login(const std::string& user, int times) {
    for (int i = 0; i < times; ++i) bus(log_db::SERVICE, log_db::PRIVILEGE_USER_BLOCK.insert, user);
  }
  static std::string blocked(const std::string& user) {
    return bus(log_db::SERVICE, log_db::PRIVILEGE_USER_BLOCK_CHECK, user);
  }
};

TEST_F(WebPrivilege, AreStoredToldAndEnforced) {
  EXPECT_EQ(
      post("set",
           "&user=admin|4&user=ghost|4&user[0]=guest|19&user[1]=root&user=&user=|4&user=guest|"),
      DONE);
  EXPECT_EQ(read(STORE), "admin:0:1:0:0:0\nguest:1:0:1:0:1\n");
  EXPECT_EQ(read(PAP), "\"guest\"\tpptpd\t@login\t*\n\"guest\"\tl2tpd\t@login\t*\n");
  EXPECT_EQ(
      read(CHAP),
      "\"guest\"\tpptpd\t&/etc/config/smbpasswd\t*\n\"guest\"\tl2tpd\t&/etc/config/smbpasswd\t*\n");
  EXPECT_THAT(recorded(KICK, 4),
              UnorderedElementsAre("kick_all_connection|1|admin", "kick_all_connection|2|admin",
                                   "kick_all_connection|16|admin", "kick_all_connection|4|guest"));
  const std::string text = "[{0}] Applied the privilege settings for \"{1}\".";
  EXPECT_THAT(recorded("notify", 2),
              UnorderedElementsAre(notice("0004", text, "admin"), notice("0004", text, "guest")));
  EXPECT_EQ(post("get"), R"({"data":{"admin":4,"guest":19},"error":0,"total":2})");
  EXPECT_EQ(post("get", "&lower=1&upper=1"), R"({"data":{"guest":19},"error":0,"total":2})");
  EXPECT_EQ(post("get", "&filter=DMI"), R"({"data":{"admin":4},"error":0,"total":2})");
  EXPECT_EQ(post("get", "&lower=&upper=0"), R"({"data":{},"error":0,"total":2})");
}

TEST_F(WebPrivilege, AreTakenAwayAlsoFromWhoHasNone) {
  write(STORE, "admin:1:1:1:0:1\nguest:0:1:0:0:0\n");
  fail_login("stranger", 5);
  ASSERT_EQ(blocked("stranger"), "1");
  EXPECT_EQ(post("unset", "&user=guest&user=&user=stranger&user=guest"), DONE);
  EXPECT_EQ(read(STORE), "admin:1:1:1:0:1\n");
  EXPECT_EQ(blocked("stranger"), "0");
  std::vector<std::string> kicks;
  for (const char* user : {"guest", "stranger"})
    for (const char* type : {"1|", "4|", "2|", "16|"})
      kicks.push_back(std::string("kick_all_connection|") + type + user);
  EXPECT_THAT(recorded(KICK, 8), testing::UnorderedElementsAreArray(kicks)) << "once each";
  const std::string text = "[{0}] Removed the privileges of \"{1}\".";
  EXPECT_THAT(recorded("notify", 2), UnorderedElementsAre(notice("0005", text, "guest"),
                                                          notice("0005", text, "stranger")));
}

// Accounts that a directory may well have: what would break a file is passed over as if there were
// no account.
TEST_F(WebPrivilege, OfNamesThatNoFileCanHoldAreNotStored) {
  const std::string accounts = read(PASSWD);
  write(PASSWD, accounts + R"(q"x:x:2001:2001::/:/bin/sh
pi|pe:x:2002:2002::/:/bin/sh
back\:x:2003:2003::/:/bin/sh
DOM\ann:x:2004:2004::/:/bin/sh
)" + "tab\tx:x:2005:2005::/:/bin/sh\n");
  for (const char* user :
       {"q%22x", "back%5c", "tab%09x", "x%0aroot", "a:b", "a%00b", "%22", "%0a", ":"})
    EXPECT_EQ(post("set", std::string("&user=") + user + "|7"), DONE) << user;
  EXPECT_EQ(read(STORE) + read(PAP) + read(CHAP), "");
  EXPECT_EQ(read(CALLS), "");
  EXPECT_EQ(post("set", "&user=pi|pe|4&user=DOM%5cann|1"), DONE);
  EXPECT_EQ(read(STORE), "DOM\\ann:1:0:0:0:0\npi|pe:0:1:0:0:0\n");
  EXPECT_EQ(post("unset", "&user=pi|pe&user=q%22x&user=x%0ay:1"), DONE);
  EXPECT_EQ(read(STORE), "DOM\\ann:1:0:0:0:0\n");
  write(PASSWD, accounts, 0644);
}

TEST_F(WebPrivilege, TakeTenThousandUsersInOneRequest) {
  std::string form;
  for (int i = 0; i < 10000; ++i) form += "&user=ghost" + std::to_string(i) + "|31";
  for (int i = 0; i < 10000; ++i) form += "&user=guest|29";
  EXPECT_EQ(post("set", form), DONE);
  EXPECT_EQ(read(STORE), "guest:1:1:0:0:1\n");
  // Those of other tests may still come.
  const auto kick = testing::Contains("kick_all_connection|2|guest");
  EXPECT_TRUE(comes_true([&] { return testing::Value(recorded(KICK), kick); }));
  EXPECT_THAT(recorded(KICK), kick.Times(1)) << "once is enough";
  std::string store;
  for (int i = 0; i < 10000; ++i) store += "user" + std::to_string(i) + ":0:1:0:0:0\n";
  write(STORE, store);
  const std::string page = post("get", "&upper=10000");
  EXPECT_THAT(page, HasSubstr(R"("user9999":4},"error":0,"total":10000})"));
  EXPECT_EQ(occurrences(page, ","), 10001U);
}

class WebBlocks : public WebPrivilege {};

TEST_F(WebBlocks, AreShownAndLifted) {
  EXPECT_EQ(post("block_show"), shown("true", 5, 30, ""));
  EXPECT_EQ(read(POLICY), std::string(DEFAULTS) + '\n') << "made again";
  fail_login("bob", 5);
  fail_login("ann\"x", 7);
  fail_login("joe", 4);
  EXPECT_EQ(post("block_show"), shown("true", 5, 30, R"("bob","ann\"x")"));
  EXPECT_EQ(post("remove_block_user", "&user=bob"), DONE);
  EXPECT_EQ(post("block_show"), shown("true", 5, 30, R"("ann\"x")"));
  EXPECT_EQ(blocked("bob") + blocked("ann\"x") + blocked("joe"), "010");
  for (const char* form : {"", "&user=", "&user"})
    EXPECT_EQ(post("remove_block_user", form), refusal(9, "user"));
  write(POLICY, R"({"global":{"enable":false,"limit":2,"time":60}})");
  EXPECT_EQ(post("block_show"), shown("false", 2, 60, "")) << "off: nothing shown";
  write(POLICY, DEFAULTS);
  EXPECT_EQ(blocked("ann\"x"), "1") << "and nothing lifted";
}

TEST_F(WebBlocks, FollowAPolicyThatIsChangedWhole) {
  const std::pair<const char*, std::vector<const char*>> rows[] = {
      {"enable", {"", "&enable=&limit=2&time=30", "&enable=TRUE&limit=11&time=1", "&enable=2"}},
      {"limit",
       {"&enable=true", "&enable=1&limit=11", "&enable=0&limit=1&time=31", "&enable=0&limit=05"}},
      {"time", {"&enable=false&limit=10", "&enable=true&limit=3&time=30%20"}},
  };
  write(POLICY, DEFAULTS);
  fail_login("bob", 5);
  for (const auto& [reason, forms] : rows)
    for (const char* form : forms) EXPECT_EQ(post("block", form), refusal(9, reason)) << form;
  EXPECT_EQ(read(POLICY), DEFAULTS);
  EXPECT_EQ(blocked("bob"), "1");
  EXPECT_EQ(post("block", "&enable=1&limit=3&time=720"), DONE);
  EXPECT_EQ(read(POLICY), "{\"global\":{\"enable\":true,\"limit\":3,\"time\":720}}\n");
  EXPECT_EQ(blocked("bob"), "0") << "what was counted is forgotten";
  fail_login("bob", 3);
  EXPECT_EQ(post("block_show"), shown("true", 3, 720, "\"bob\""));
  EXPECT_EQ(post("block", "&enable=false&limit=10&time=1440"), DONE);
  EXPECT_EQ(post("block_show"), shown("false", 10, 1440, ""));
  const std::string text =
      "[{0}] Updated the login attempt policy. Number of login attempts: {1}, Login failure block "
      "time: {2}, Login attempt policy: {3}.";
  EXPECT_THAT(recorded("notify", 2),
              UnorderedElementsAre(notice("0019", text, "3|12 hours|Enable"),
                                   notice("0019", text, "10|24 hours|Disable")));
}

// In suites of their own, since the real daemons are gone afterwards.
class WebBlocksOfAnyLog : public WebPrivilege {
 protected:
  static std::string row(const std::string& user, int limit, std::time_t age) {
    db_privilege_user_block_data record{};
    std::memcpy(record.username, user.data(), std::min(user.size(), sizeof record.username));
    record.limit = limit;
    record.timestamp = static_cast<uint64_t>(std::time(nullptr) - age);
    return bytes_of(record);
  }
  static std::string answer(uint64_t count, const std::string& rows) {
    const uint64_t head[] = {count, count, 0};
    return bytes_of(head) + rows;
  }
  // What a request gets while the log database answers with `reply`.
  std::string with(const std::string& reply, int status, const char* action,
                   const char* form = "") const {
    const auto& methods = log_db::PRIVILEGE_USER_BLOCK;
    const ScriptedService daemon(log_db::SERVICE, "/usr/lib/fenro/ormeld",
                                 {methods.query, methods.remove, methods.clean}, reply, status);
    return post(action, form);
  }
};

TEST_F(WebBlocksOfAnyLog, AreThoseWhoseTimeIsNotOver) {
  write(POLICY, DEFAULTS);
  const std::string endless(1025, 'e');
  const std::string rows = row("fresh", 5, 1700) + row("over", 5, 1801) + row("few", 4, 9999) +
                           row("future", 9, -9999) + row("\xff\xe4", 6, 0) + row("", 5, 1801) +
                           row(endless, 6, 0);
  EXPECT_EQ(
      with(answer(7, rows), MIB_SUCCESS, "block_show"),
      shown("true", 5, 30, "\"fresh\",\"future\",\"\xef\xbf\xbd\xef\xbf\xbd\",\"" + endless + '"'));
  EXPECT_THAT(recorded(log_db::PRIVILEGE_USER_BLOCK.remove), ElementsAre("over", ""));
  EXPECT_EQ(with(answer(~uint64_t{0}, row("one", 5, 0) + "cut off"), MIB_SUCCESS, "block_show"),
            shown("true", 5, 30, "\"one\""));
  EXPECT_EQ(with("", MIB_IO_FAILURE, "block_show"), shown("true", 5, 30, ""));
  write(POLICY, R"({"global":{"enable":"true","limit":[2],"x":7}})");
  EXPECT_EQ(with(answer(7, rows), MIB_SUCCESS, "block_show"),
            R"({"data":{"enable":"true","limit":[2],"time":30,"user":[]},"error":0})");
}

TEST_F(WebBlocksOfAnyLog, CannotBeLiftedWhereTheLogRefuses) {
  EXPECT_EQ(with("", MIB_IO_FAILURE, "remove_block_user", "&user=bob"),
            refusal(48, "mibservice api return error"));
  EXPECT_EQ(with("", MIB_IO_FAILURE, "block", "&enable=1&limit=3&time=60"), DONE)
      << "the policy is what counts";
  EXPECT_THAT(read(POLICY), HasSubstr("\"limit\":3"));
  EXPECT_EQ(with("", MIB_IO_FAILURE, "unset", "&user=bob"), DONE);
}

class WebBlocksOfAnySettings : public WebPrivilege {};

TEST_F(WebBlocksOfAnySettings, AreMadeAnewWhereThePolicyIsNotThere) {
  const auto with = [this](const std::string& reply, const char* action, const char* form = "") {
    const ScriptedService daemon("vpncaas", "/usr/lib/fenro/fenro-jsond",
                                 {"read_json", "write_json"}, reply);
    return post(action, form);
  };
  for (const char* reply :
       {"", "{}", "[]", R"({"error":0})", R"({"error":1,"data":{"global":{"enable":false}}})",
        R"({"error":0,"data":{}})", R"({"error":0,"data":{"global":7}})", R"({"error":"0"})"}) {
    SCOPED_TRACE(reply);
    fs::remove(CALLS);
    fail_login("bob", 1);
    EXPECT_EQ(with(reply, "block_show"), shown("true", 5, 30, ""));
    EXPECT_THAT(recorded("read_json"), ElementsAre(R"({"path":"/etc/config/vpn_block.conf"})"));
    EXPECT_THAT(recorded("write_json"),
                ElementsAre(std::string(R"({"path":"/etc/config/vpn_block.conf","data":)") +
                            DEFAULTS + '}'));
    fail_login("bob", 4);
    EXPECT_EQ(blocked("bob"), "0") << "the count began again";
    bus(log_db::SERVICE, log_db::PRIVILEGE_USER_BLOCK.clean);
  }
  for (const char* reply : {"", R"({"error":-1,"data":"disk full"})", "nonsense"})
    EXPECT_EQ(with(reply, "block", "&enable=true&limit=5&time=30"),
              refusal(48, "mibservice api return error"));
  EXPECT_THAT(read(LOG),
              HasSubstr(": mib failed. mibsh vpncaas.read_json path=/etc/config/vpn_block.conf\n"));
  EXPECT_THAT(read(CALLS), Not(HasSubstr("notify|"))) << "nothing has changed";
  EXPECT_THAT(post("block", "&enable=true&limit=5&time=30"), StartsWith(R"({"error":48)"))
      << "no such user";
  EXPECT_EQ(post("block_show"), shown("true", 5, 30, ""));
}

class WebUsers : public WebHost {
 protected:
  std::string query(const std::string& form) const {
    return cgi("/ormel/user/query", admin + form).body;
  }
};

TEST_F(WebUsers, AreListedByTheirSource) {
  const std::string accounts = read(PASSWD);
  std::string many;
  for (int i = 100; i < 200; ++i) many += "zz" + std::to_string(i) + ":x:5000:5000::/:/bin/sh\n";
  write(PASSWD,
        accounts + many + std::string(33, 'l') +
            ":x:5000:1::/:/bin/sh\nq\"\xff:x:5000:1::/:/bin/sh\nzz-system:x:999:1::/:/bin/"
            "sh\nzz-service:x:5000:1::/:/usr/sbin/nologin\n",
        0644);
  EXPECT_EQ(query("&filter=zz&lower=10&upper=11"),
            R"({"data":["zz110","zz111"],"error":0,"total":100})");
  EXPECT_EQ(query("&filter=zz&lower=99&upper=500&type=local"),
            R"({"data":["zz199"],"error":0,"total":100})");
  const std::string page = query("&filter=zz&type=1");
  EXPECT_EQ(occurrences(page, ","), 52U) << "rows 0 to 50";
  EXPECT_EQ(query("&filter=q%22"), "{\"data\":[\"q\\\"\xef\xbf\xbd\"],\"error\":0,\"total\":1}");
  EXPECT_EQ(query("&filter=llll"), R"({"data":[],"error":0,"total":0})")
      << "too long a name for the platform";
  EXPECT_EQ(query("&type=remote"), R"({"data":[],"error":0,"total":0})");
  EXPECT_EQ(query("&type=2&lower=-5&upper=-9"), R"({"data":[],"error":0,"total":0})");
  for (const char* type : {"3", "LOCAL", "1x", "%201"})
    EXPECT_EQ(query(std::string("&type=") + type), refusal(3, "wrong type"));
  write(PASSWD, accounts, 0644);
}

}  // namespace
