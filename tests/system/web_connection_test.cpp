// The live connections over the web: shown with their counters, thrown out, and the handlers beside
// that no route leads to.
#include <netinet/in.h>
#include <sys/socket.h>

#include <jansson.h>

#include "ormel/base/handle.h"
#include "ormel/web/connection.h"
#include "ormel/web/handlers.h"
#include "support/log_rows.h"
#include "support/web_request.h"

using namespace ormel::test;

namespace {

constexpr const char* KICK = "/ormel/connection/kick";
constexpr const char* ONLINE_USERS = "/var/log/ormel_online_users";

// The name is "bob" in base64, the time the beginning of 7 March 2024.
std::string line(const std::string& interface, const std::string& source, const std::string& number,
                 int type) {
  return interface + ' ' + source + ' ' + number + " 10.0.0.1 10.0.0.2 " + std::to_string(type) +
         " 1709769600 Ym9i\n";
}

ormel::Json data_of(const std::string& body) {
  const ormel::Json root{json_loads(body.c_str(), 0, nullptr)};
  return ormel::Json{json_incref(json_object_get(root.get(), "data"))};
}

json_int_t number_in(const std::string& body, size_t row, const char* member) {
  return json_integer_value(json_object_get(json_array_get(data_of(body).get(), row), member));
}

// In place of an OpenVPN server: its management port, with one client whose counters grow at each
// question.
int serve_management_port() {
  const ormel::Fd listener{socket(AF_INET, SOCK_STREAM, 0)};
  const int on = 1;
  sockaddr_in place{AF_INET, htons(7505), {htonl(INADDR_LOOPBACK)}, {}};
  setsockopt(listener.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  if (bind(listener.get(), reinterpret_cast<sockaddr*>(&place), sizeof place) != 0 ||
      listen(listener.get(), 8) != 0)
    return 1;
  for (unsigned long bytes = 1'000'000;; bytes += 1'000'000) {
    const ormel::Fd client{accept(listener.get(), nullptr, nullptr)};
    char question[64] = "";
    // Like the real one it sends nothing any more to a caller that has already said "quit".
    if (recv(client.get(), question, sizeof question - 1, 0) <= 0 ||
        std::string(question) != "status 3\n")
      return 1;
    const std::string answer =
        ">INFO:OpenVPN Management Interface Version 5 -- type 'help' for more info\r\n"
        "HEADER\tCLIENT_LIST\tCommon Name\tReal Address\r\n"
        "CLIENT_LIST\tbob\t10.0.0.5:51000\t10.8.0.2\t\t" +
        std::to_string(bytes) + '\t' + std::to_string(2 * bytes) + "\tnow\r\nEND\r\n";
    send(client.get(), answer.data(), answer.size(), MSG_NOSIGNAL);
    while (recv(client.get(), question, sizeof question, 0) > 0) continue;  // the caller closes
  }
}

class ConnectionList : public WebHost {
 protected:
  void SetUp() override {
    WebHost::SetUp();
    fs::remove(ONLINE_USERS);
  }
  [[nodiscard]] WebReply list() const { return cgi("/ormel/connection/list", admin); }
};

TEST_F(ConnectionList, ShowsEachLineInOrderWithItsCounters) {
  EXPECT_EQ(list().body, R"({"data":[],"error":0,"total":0})") << "without its file";
  const Child management(serve_management_port);
  write(ONLINE_USERS, line("lo", "10.0.0.9", "4321", 1) + line("x", "10.0.0.5", "51000", 4) +
                          line("gone0", "10.0.0.8", "77", 2) +
                          "AA:BB\t10.0.0.7  7 - 10.6.0.2 16 1709769600 YW15   Amy's \"phone\" \n");
  const std::string first = list().body;
  for (const char* text :
       {R"("login":"2024/03/07 00:00:00","name":"bob","rx_rate":)",
        R"("source_ip":"10.0.0.5","target":"10.0.0.5:51000",)",
        R"("rx_rate":0,"rx_total":0,"source_ip":"10.0.0.8","target":"gone0")",
        R"({"allocate_ip":"10.6.0.2","device_info":"Amy's \"phone\" ","login")",
        R"("source_ip":"10.0.0.7","target":"AA:BB","tx_rate":0,"tx_total":0,"type":16,)",
        R"(}],"error":0,"total":4})"})
    EXPECT_THAT(first, HasSubstr(text));
  EXPECT_NEAR(static_cast<double>(number_in(first, 0, "uptime")),
              static_cast<double>(std::time(nullptr) - 1709769600), 60);
  std::string later;
  EXPECT_TRUE(comes_true([&] {
    later = list().body;
    return number_in(later, 1, "rx_rate") > 0 && number_in(later, 0, "rx_rate") > 0;
  })) << "the management port is on lo";
  EXPECT_GT(number_in(later, 0, "tx_total"), number_in(first, 0, "tx_total"));
  EXPECT_GT(number_in(later, 1, "rx_total"), number_in(first, 1, "rx_total"));
  EXPECT_EQ(number_in(later, 1, "tx_total"), 2 * number_in(later, 1, "rx_total"));
}

TEST_F(ConnectionList, SkipsWhatIsNoConnection) {
  const std::string good = line("ppp9", "10.0.0.9", "1", 1);
  const std::tuple<const char*, std::string, size_t> rows[] = {
      {"a cut off line", "ppp0 10.0.0.1 4321 10.1.0.1 10.1.0.2 1 17097", 0},
      {"a malformed number", line("ppp0", "10.0.0.1", "12x", 1), 0},
      {"a number that is too large", line("ppp0", "10.0.0.1", "4294967296", 1), 0},
      {"zero bytes after a crash", std::string(4096, '\0'), 0},
      {"a huge field", "ppp0 " + std::string(100'000, 'y') + " 1 a b 1 1709769600 Ym9i\n", 0},
      {"a name that is no base64", "ppp0 a 1 b c 1 1709769600 %%%\n", 1},
      {"a name that is no UTF-8", "ppp0 a 1 b c 1 1709769600 //79\n", 1},
      {"a time far ahead", "ppp0 a 1 b c 1 9223372036854775807 Ym9i\n", 1},
      {"a time far back", "ppp0 a 1 b c 1 -9223372036854775808 Ym9i\n", 1},
      {"a last line without its end", "ppp0 a 1 b c 1 1709769600 Ym9i", 1},
  };
  for (const auto& [what, line, shown] : rows) {
    SCOPED_TRACE(what);
    write(ONLINE_USERS, good + line);
    const WebReply reply = list();
    EXPECT_EQ(json_array_size(data_of(reply.body).get()), 1U + shown) << reply.body;
    EXPECT_THAT(reply.body, HasSubstr("\"target\":\"ppp9\""));
    EXPECT_THAT(reply.body, HasSubstr("\"total\":" + std::to_string(1 + shown)));
  }
}

// The daemon that counts is replaced by one that answers all kinds of things.
class ConnectionCounters : public ConnectionList {};

TEST_F(ConnectionCounters, AreZeroWhereTheAnswerIsNone) {
  write(ONLINE_USERS, line("ppp0", "10.0.0.9", "4321", 1));
  const std::string good = R"({"key":"ppp0","rx_bytes":7,"tx_bytes":8,"rx_rate":9,"tx_rate":10})";
  const std::string shown =
      R"("rx_rate":9,"rx_total":7,"source_ip":"10.0.0.9","target":"ppp0","tx_rate":10,"tx_total":8)";
  const std::string zeros =
      R"("rx_rate":0,"rx_total":0,"source_ip":"10.0.0.9","target":"ppp0","tx_rate":0,"tx_total":0)";
  const std::string most =
      R"("rx_rate":2147483647,"rx_total":0,"source_ip":"10.0.0.9","target":"ppp0","tx_rate":-2147483648,"tx_total":18446744073709551615)";
  const std::tuple<std::string, std::string, const char*> rows[] = {
      {R"({"error":0,"data":[7,{"key":"ppp0"},)" + good + "," +
           R"({"key":"ppp0","rx_bytes":1,"tx_bytes":1,"rx_rate":1,"tx_rate":1}]})",
       shown, "unexpected type. "},
      {R"({"error":0,"data":[{"key":"ppp0","rx_bytes":-1,"tx_bytes":1e30,"rx_rate":9999999999,"tx_rate":-1e10}]})",
       most, ""},
      {R"({"error":1,"data":[)" + good + "]}", zeros, ""},
      {R"({"error":"0","data":[)" + good + "]}", zeros, "val isn't an integer. "},
      {R"({"error":0,"data":{}})", zeros, "data isn't an array. "},
      {R"({"error":0,"data":[[]]})", zeros, "val isn't an object. "},
      {R"({"error":0,"data":[)", zeros, "root isn't an object. 1: "},
      {"", zeros, "root isn't an object. "},
  };
  for (const auto& [answer, expected, logged] : rows) {
    SCOPED_TRACE(answer);
    fs::remove(LOG);
    const ScriptedService rates{
        "RateServer", "/usr/lib/fenro/fenro-rated", {"all_server_stat"}, answer};
    EXPECT_THAT(list().body, HasSubstr(expected));
    EXPECT_THAT(read(LOG), HasSubstr(logged));
  }
  EXPECT_THAT(list().body, HasSubstr(zeros)) << "nobody serves any more";
  EXPECT_THAT(read(LOG), HasSubstr(": mib_call failed ret:2"));
}

class ConnectionKick : public WebHost {
 protected:
  void SetUp() override {
    WebHost::SetUp();
    write(ONLINE_USERS, line("ppp0", "10.0.0.9", "4321", 1) + line("ppp1", "10.0.0.8", "4322", 2) +
                            line("x", "10.0.0.5", "51000", 4) +
                            line("AA:BB|CC", "10.0.0.7", "7", 16) +
                            line("wg0", "10.0.0.6", "7", 32) + line("ppp0", "10.0.0.9", "5555", 1));
  }
  [[nodiscard]] WebReply kick(const std::string& query) const { return cgi(KICK, admin + query); }
};

TEST_F(ConnectionKick, ThrowsOutWhomItNames) {
  const std::pair<const char*, std::vector<std::string>> rows[] = {
      {"&conn=1|ppp0", {"kick_one_connection|1|5555"}},
      {"&conn=2|ppp1&conn=4|10.0.0.5:51000",
       {"kick_one_connection|2|4322", "kick_one_connection|4|10.0.0.5:51000"}},
      {"&conn[0]=1%7Cppp0&conn[1]=2%7Cppp1",
       {"kick_one_connection|1|5555", "kick_one_connection|2|4322"}},
      {"&conn=2|ppp0", {"kick_one_connection|2|5555"}},  // the type of the request counts
      {"&conn=4|10.0.0.5:51001&conn=1|ppp7&conn=ppp0&conn=|ppp0&conn=1|&conn=|&conn=&conn", {}},
      {"&conn=32|wg0&conn=x|ppp0&conn=256|ppp0", {}},
      {"", {}},
  };
  for (const auto& [query, calls] : rows) {
    SCOPED_TRACE(query);
    fs::remove(CALLS);
    EXPECT_EQ(kick(query).body, R"({"error":0})");
    EXPECT_THAT(recorded("vpn_common.sh", calls.size()), testing::UnorderedElementsAreArray(calls));
  }
  fs::remove(ONLINE_USERS);
  EXPECT_EQ(kick("&conn=1|ppp0").body, R"({"error":0})");
}

TEST_F(ConnectionKick, EndsWithWhatTheTunnelsOwnDaemonReports) {
  // The last "|" parts type and key, so that a client can't be named whose identifier holds one.
  write(ONLINE_USERS, line("AA:BB", "10.0.0.7", "7", 16) + line("ppp0", "10.0.0.9", "4321", 1));
  for (const auto& [answer, code] :
       {std::pair{R"({"error":0})", 0}, {R"({"error":1})", 48}, {"nonsense", 49}}) {
    SCOPED_TRACE(answer);
    fs::remove(CALLS);
    const ScriptedService morvid{
        "MorviServer", "/usr/lib/fenro/morvid", {"disconnect"}, std::string(answer)};
    EXPECT_EQ(kick("&conn=16|AA:BB&conn=1|ppp0").status, code);
    EXPECT_THAT(recorded("disconnect"), ElementsAre(R"({"mac":"AA:BB"})"));
    const size_t more = code == 0 ? 1 : 0;
    EXPECT_EQ(recorded("vpn_common.sh", more).size(), more) << "goes on after a success";
  }
  EXPECT_EQ(kick("&conn=16|AA:BB").status, 47) << "nobody serves any more";
}

TEST_F(ConnectionKick, TakesTenThousandNames) {
  std::string body;
  for (int i = 0; i < 10'000; ++i) body += "conn=1|ppp" + std::to_string(1000 + i) + '&';
  body += "conn=2|ppp1";
  EXPECT_EQ(cgi(KICK, admin, {"CONTENT_LENGTH=1"}, body).body, R"({"error":0})");
  EXPECT_THAT(recorded("vpn_common.sh", 1), ElementsAre("kick_one_connection|2|4322"));
}

class MobileDevice : public WebHost {
 protected:
  [[nodiscard]] std::string add(const std::string& query) const {
    return unrouted(ormel::cgi::connection::temporary, guest + query).body;
  }
};

TEST_F(MobileDevice, IsRegisteredUnderAnIdentifier) {
  const std::string body = add("&mac=00:11:22:33:44:aF&nat=ppp1001&device=My%09phone");
  EXPECT_THAT(body, MatchesRegex(R"(\{"data":"[0-9a-f]{32}","error":0\})"));
  const db_device_info_data device =
      log_rows<db_device_info_data>(ormel::log_db::DEVICE_INFO.query).at(0);
  EXPECT_STREQ(device.mac, "00:11:22:33:44:aF");
  EXPECT_STREQ(device.nic, "ppp1001");
  EXPECT_STREQ(device.dev_name, "My phone");
  EXPECT_STREQ(device.user_id, "guest");
  EXPECT_EQ("sid=" + std::string(device.fenrosid), guest);
  EXPECT_NEAR(static_cast<double>(device.time), static_cast<double>(std::time(nullptr)), 60);
}

TEST_F(MobileDevice, IsRefusedByTheVariableThatIsWrong) {
  const std::string mac = "&mac=00:11:22:33:44:55";
  const std::pair<const char*, std::vector<std::string>> rows[] = {
      {"mac",
       {"&device=a", "&device=a&mac=", "&device=a&mac=00:11:22:33:44",
        "&device=a&mac=00:11:22:33:44:5g", "&device=a&mac=00:11:22:33:44:55%0a"}},
      {"nat",
       {mac + "&device=a&nat=ppp5", mac + "&device=a&nat=tun1000", mac + "&device=a&nat=wlan0",
        mac + "&device=a&nat=eth"}},
      {"device", {mac + "&nat=eth0", mac + "&device="}},
  };
  for (const auto& [wrong, queries] : rows)
    for (const std::string& query : queries) EXPECT_EQ(add(query), refusal(1, wrong)) << query;
  for (const char* nat : {"", "&nat=", "&nat=eth0", "&nat=tun1001", "&nat=ppp99999999999999999999"})
    EXPECT_THAT(add(mac + "&device=a" + nat), HasSubstr("\"error\":0")) << nat;
  guest = "sid=none";
  EXPECT_EQ(add(mac + "&device=a"), refusal(39, "session invalid"));
}

// The provider's settings, from a web server of the test under the provider's name.
class ProviderList : public WebHost {
 protected:
  static constexpr const char* FOLDER = "/tmp/provider";
  static void SetUpTestSuite() {
    for (const char* folder : {FOLDER, "/var/lib/nginx", "/var/log/nginx"})
      fs::create_directories(folder);
    shell(R"(cd /tmp/provider
        openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 2 \
          -subj /CN=provider -addext subjectAltName=DNS:vpn-provider.example \
          -keyout key.pem -out cert.pem
        echo 127.0.0.1 vpn-provider.example >>/etc/hosts
        cat /etc/ssl/certs/ca-certificates.crt cert.pem >trusted
        rm /etc/ssl/certs/ca-certificates.crt # a link to the host's, perhaps
        install -m 0644 trusted /etc/ssl/certs/ca-certificates.crt)");
    write(std::string(FOLDER) + "/nginx.conf", R"(
        user root; pid /tmp/provider/pid; error_log /tmp/provider/error; events {}
        http {
          log_format headers '$http_username|$http_password|$http_accept|$http_user_agent|'
            '$http_x_gf_product|$http_x_gf_platform|$http_x_gf_product_version|$request';
          server {
            listen 127.0.0.1:443 ssl; ssl_certificate cert.pem; ssl_certificate_key key.pem;
            access_log /tmp/provider/access headers; root /tmp/provider;
            if ($http_password = "wrong") { return 401; }
          }
        })");
    run({"/usr/sbin/nginx", "-c", "/tmp/provider/nginx.conf"});
  }
  static void TearDownTestSuite() { run({"/usr/bin/pkill", "-f", "/tmp/provider/nginx.conf"}); }
  void SetUp() override {
    WebHost::SetUp();
    fs::remove(std::string(FOLDER) + "/settings");
  }
  static void settings(const std::string& text) {
    write(std::string(FOLDER) + "/settings", text, 0644);
  }
  [[nodiscard]] WebReply ask(const std::string& query) const {
    return unrouted(ormel::cgi::provider::goldenfrog, admin + query);
  }
};

TEST_F(ProviderList, ShowsServersAndPortsOfAnAccount) {
  settings(
      R"({"vpn":{"locations":[{"name":"Oslo","ip":"1.2.3.4","ca":"x","rank":1,"basename":"b","protocols":[],)"
      R"("server_type":2,"hostname":"no.example"},7],"protocol_config":{"OpenVPN-256":{"ports":[443,1194]}}}})");
  const std::string expected =
      R"({"data":{"servers":[{"name":"Oslo","hostname":"no.example"},7],"openvpn":[443,1194]},"error":0})";
  EXPECT_EQ(ask("&username=amy&password=p%25s").body, expected);
  EXPECT_EQ(ask("&type=PPTP&index=1").body, expected);
  const std::string fixed = "|-|-|VyprVPN|VyprVPN SDK/vantri|0.20161031.11705|GET /settings HTTP/";
  for (const char* account : {"amy|p%s", "bob|p1"})  // of the request, of the stored profile
    EXPECT_THAT(read(std::string(FOLDER) + "/access"), HasSubstr(account + fixed));
  settings(R"({"vpn":{"locations":"none"}})");
  EXPECT_EQ(ask("&username=a&password=b").body,
            R"({"data":{"servers":"none","openvpn":null},"error":0})");
}

TEST_F(ProviderList, RefusesInOrder) {
  settings("<html>");
  const std::pair<std::string, std::vector<const char*>> rows[] = {
      {refusal(36, "miss option"), {"&username=a", "&username=&password=b"}},
      {refusal(3, "wrong type"), {"&type=DROVIK&index=1", "&type=4&index=1"}},
      {refusal(30, "no such config"), {"&type=256", "&type=1024&index=1"}},
      {refusal(45, "cannot access"),
       {"&username=a&password=b", "&username=a&password=wrong",
        "&username=a%0d%0aX-More:1&password=b"}},
  };
  for (const auto& [reply, queries] : rows)
    for (const char* query : queries) EXPECT_EQ(ask(query).body, reply) << query;
  EXPECT_EQ(unrouted(ormel::cgi::provider::goldenfrog, guest).body, refusal(39, "session invalid"));
}

}  // namespace
