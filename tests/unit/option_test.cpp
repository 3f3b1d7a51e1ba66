#include <cstdlib>

#include <gtest/gtest.h>

#include "ormel/base/crypto.h"
#include "ormel/base/error.h"
#include "ormel/base/lines.h"
#include "ormel/cgi/cgi.h"
#include "ormel/config/pool.h"
#include "ormel/drivers/drovik/drovik.h"
#include "ormel/drivers/l2tp.h"
#include "ormel/drivers/openvpn/openvpn.h"
#include "ormel/drivers/pptp.h"
#include "ormel/drivers/wireguard/wireguard.h"
#include "ormel/options/apply.h"
#include "ormel/options/table.h"

namespace ormel::option {
namespace {

using config::ClientConfig;
using config::cm;
using config::PolyConfig;

constexpr int WIREGUARD = WIREGUARD_SERVER_TYPE | WIREGUARD_CLIENT_TYPE;
constexpr int OPENVPN = OVPN_SERVER_TYPE | OVPN_CLIENT_TYPE;
constexpr int DROVIK = DROVIK_SERVER_TYPE | DROVIK_CLIENT_TYPE;
constexpr int PPP = PPTP_SERVER_TYPE | PPTP_CLIENT_TYPE | L2TP_SERVER_TYPE | L2TP_CLIENT_TYPE;
constexpr TYPE TYPES[] = {PPTP_SERVER_TYPE,     L2TP_SERVER_TYPE,      OVPN_SERVER_TYPE,
                          DROVIK_SERVER_TYPE,   WIREGUARD_SERVER_TYPE, PPTP_CLIENT_TYPE,
                          L2TP_CLIENT_TYPE,     OVPN_CLIENT_TYPE,      DROVIK_CLIENT_TYPE,
                          WIREGUARD_CLIENT_TYPE};

class OptionTest : public testing::Test {
 protected:
  // Every test has the pool of a fresh appliance with one profile of each client type.
  void SetUp() override {
    cm.config_pool.clear();
    for (const TYPE type : TYPES) {
      PolyConfig record(config::make_record(type, is_client(type) ? 1 : 0));
      if (!is_client(type))
        record.cast<config::ServerConfig>()->ip_begin = "10." + std::to_string(type) + ".0.2";
      cm.update(&record);
    }
    auto* wireguard = cm.fetch(WIREGUARD_SERVER_TYPE, 0)->cast<wireguard::ServerConfig>();
    wireguard->server_ip = "198.18.7.1";
    wireguard->server_mask_str = "255.255.255.0";
  }
  void TearDown() override { cm.config_pool.clear(); }
  // Parses a command line; what was printed goes to `errors`.
  std::unique_ptr<PolyConfig> parse(std::vector<std::string> words) {
    words.insert(words.begin(), "/usr/sbin/ormel");
    std::vector<char*> argv;
    argv.reserve(words.size() + 1);
    for (std::string& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);
    testing::internal::CaptureStderr();
    auto record = get_options(static_cast<int>(words.size()), argv.data());
    errors = testing::internal::GetCapturedStderr();
    return record;
  }
  int apply(PolyConfig& record, const std::string& name, const char* value) {
    testing::internal::CaptureStderr();
    int rc = -100;
    BaseConfig* work = record.bc.get();
    for (const CommandOption* row = COMMAND_OPTIONS; row->fpr; ++row)
      if (name == row->opt.name) rc = apply_option(*row, &work, value);
    errors = testing::internal::GetCapturedStderr();
    return rc;
  }
  // What an option says to a value, for a new record and an action.
  void expect(TYPE type, ACTION action, const char* name, const char* value, int code,
              const std::string& text) {
    SCOPED_TRACE(std::string(name) + '=' + (value ? value : "(null)"));
    PolyConfig record(config::make_record(type, 0));
    record->action = action;
    EXPECT_EQ(apply(record, name, value), code);
    EXPECT_EQ(errors, code == NO_ERROR ? "" : "Error: " + text + '\n');
  }
  std::string errors;
};

TEST_F(OptionTest, TakesEachOptionForItsTypesAndRefusesItForAllOthers) {
  // Options, the types that take them, and what is said for others; "*" stands for the name.
  const std::tuple<const char*, int, std::string> rows[] = {
      {"auth=ms-chapv2", PPP, "--* only for SPPTP, PPTP, SL2TP and L2TP"},
      {"enc=high", PPTP_SERVER_TYPE | PPTP_CLIENT_TYPE | OPENVPN,
       "--* only for SPPTP, PPTP, SOVPN and OVPN"},
      {"name=office host=127.0.0.1 user=bob pass=secret reconnect=TRUE mask=8", CLIENT_TYPES,
       "--name only for PPTP, L2TP, OVPN, DROVIK and WIREGUARD"},
      {"port=443", OPENVPN | DROVIK | WIREGUARD,
       "--* only for SOVPN, OVPN, SDROVIK and DROVIK, SWIERGUARD, WIERGUARD"},
      {"proto=Tcp", OPENVPN, "--* only for SOVPN and OVPN"},
      {"json vendor=app metadata= up=/bin/dash down=/bin/dash", CLIENT_TYPES | SERVER_TYPES, ""},
      {"gateway=1", CLIENT_TYPES | OVPN_SERVER_TYPE, "--* only for OVPN"},
      {"vendor-auth=false", OVPN_CLIENT_TYPE, "--compress only for OpenVPN"},
      {"compress=0", OPENVPN, "--* only for OpenVPN"},
      {"ca=f dh=f key=f cert=f pkcs12=f extra_certs=f", OVPN_CLIENT_TYPE, "--* only for OpenVPN"},
      {"tls_auth=f", OVPN_CLIENT_TYPE, "--tls-auth only for OpenVPN"},
      {"crl_verify=f", OVPN_CLIENT_TYPE, "--crl-verify only for OpenVPN"},
      {"enable=true ip_pool=10.99.0.0 maximum=60 out_eif=wgc3001", SERVER_TYPES,
       "--enable only for SPPTP, SL2TP, SOVPN, SDROVIK and SWIREGUARD"},
      {"enable_dns=1", SERVER_TYPES | WIREGUARD_CLIENT_TYPE,
       "--enable only for SPPTP, SL2TP, SOVPN, SWIREGUARD and WIREGUARD"},
      {"manual_dns=8.8.8.8", SERVER_TYPES | WIREGUARD_CLIENT_TYPE,
       "--* only for SPPTP, SL2TP, SOVPN, SDROVIK, SWIREGUARD, WIREGUARD"},
      {"psk=key", DROVIK | WIREGUARD | L2TP_SERVER_TYPE | L2TP_CLIENT_TYPE,
       "--* only for SL2TP and L2TP and SDROVIK and DROVIK and SWIREGUARD and WIREGUARD"},
      {"fenro_port=65535", CLIENT_TYPES,
       "--fenro-port only for PPTP, L2TP, OVPN, DROVIK and WIREGUARD"},
      {"debug=1", DROVIK, "--* only for DROVIK Server Client"},
      {"mss=1200", PPTP_SERVER_TYPE | L2TP_SERVER_TYPE | OVPN_SERVER_TYPE,
       "--* only for PPTP, L2TP, and OVPN Server"},
      {"server_ip=10.1.1.1 server_name=n server_pri_key=k server_mask=24", WIREGUARD_SERVER_TYPE,
       "--* for wireguard Server"},
      {"client_ip=10.1.1.1 client_name=n client_pri_key=k client_mask=32", WIREGUARD_CLIENT_TYPE,
       "--* for wireguard Client"},
      {"peer_name=n", WIREGUARD_SERVER_TYPE, "--* for wireguard Server Client"},
      {"peer_pub_key=k peer_allow_ip=198.18.7.9/32 peer_endpoint=h:1 keepalive=25", WIREGUARD,
       "--* for wireguard Server Client"},
      {"sig_algo=sha1WithRSAEncryption", OVPN_SERVER_TYPE, "* works only for OpenVPN server"},
  };
  for (const auto& [options, types, words] : rows) {
    for (const std::string& option : split_words(options)) {
      const size_t end = option.find('=');
      const std::string name = option.substr(0, end);
      const char* value = end == std::string::npos ? nullptr : option.c_str() + end + 1;
      std::string said = "Error: " + words + '\n';
      if (const size_t at = said.find('*'); at != std::string::npos) said.replace(at, 1, name);
      for (const TYPE type : TYPES) {
        SCOPED_TRACE(name + " for type " + std::to_string(type));
        PolyConfig record(config::make_record(type, 0));
        cm.fetch(type, is_client(type) ? 1 : 0)->dup(record.bc.get());
        record->action = MODIFY_ACTION;
        const bool taken = (type & types) != 0;
        EXPECT_EQ(apply(record, name, value), taken ? NO_ERROR : ERR_WRONG_TYPE);
        EXPECT_EQ(errors, taken ? "" : said);
        PolyConfig none;
        EXPECT_EQ(apply(none, name, value), ERR_NO_TYPE);
      }
    }
  }
}

TEST_F(OptionTest, RefusesBadValuesInTheirOwnWords) {
  const auto usual = [](TYPE type) { return is_client(type) ? ADD_ACTION : MODIFY_ACTION; };
  const std::string long_name(601, 'n');
  const std::string long_user(65, 'u');
  const std::string long_text(129, 'k');
  const std::tuple<TYPE, const char*, const char*, int, std::string> rows[] = {
      {PPTP_CLIENT_TYPE, "auth", "", ERR_VALUE, "auth"},
      {PPTP_CLIENT_TYPE, "auth", "5", ERR_UNKNOWN_OPTION, "5"},
      {PPTP_CLIENT_TYPE, "name", long_name.c_str(), ERR_NAME_LENGTH, long_name},
      {PPTP_CLIENT_TYPE, "host", "256.1.1.1.1", ERR_VALUE, "host"},
      {PPTP_CLIENT_TYPE, "user", long_user.c_str(), ERR_USER_LENGTH, long_user},
      {PPTP_CLIENT_TYPE, "pass", nullptr, ERR_VALUE, "pass"},
      {PPTP_CLIENT_TYPE, "metadata", long_text.c_str(), ERR_META_LENGTH, long_text},
      {PPTP_CLIENT_TYPE, "up", "/etc/passwd", ERR_EXECUTABLE, "/etc/passwd"},
      {PPTP_CLIENT_TYPE, "down", "/nowhere", ERR_EXECUTABLE, "/nowhere"},
      {OVPN_CLIENT_TYPE, "port", "", ERR_VALUE, "port"},
      {OVPN_CLIENT_TYPE, "port", "0", ERR_PORT_NUMBER, "0"},
      {OVPN_CLIENT_TYPE, "port", "65536", ERR_PORT_NUMBER, "65536"},
      {WIREGUARD_CLIENT_TYPE, "port", "65536", ERR_PORT_NUMBER, "65536"},
      {WIREGUARD_CLIENT_TYPE, "peer_endpoint", "", ERR_VALUE, "peer_endpoint is NULL or 0."},
      {WIREGUARD_SERVER_TYPE, "peer_allow_ip", "1.2.3.4", ERR_VALUE,
       "peer_allow_ip doesn't have \"/\""},
      {WIREGUARD_SERVER_TYPE, "peer_allow_ip", "198.18.7.9/24", ERR_WIREGUARD_PEER_IP,
       "wireguard peer allow ip mask is not 32."},
      {WIREGUARD_SERVER_TYPE, "peer_allow_ip", "198.18.8.9/32", ERR_WIREGUARD_PEER_IP,
       "wireguard peer ip not in server."},
      {L2TP_CLIENT_TYPE, "psk", long_text.c_str(), ERR_VALUE, long_text},
      {L2TP_CLIENT_TYPE, "psk", nullptr, ERR_VALUE, "psk"},
      {PPTP_SERVER_TYPE, "out_eif", "eth0;x", ERR_VALUE,
       "--apply_out_eif only support none, eth, dvs, br, bond, docker, lxcbr, ppp, dtunc and tun "
       "device"},
      {OVPN_SERVER_TYPE, "sig_algo", "md5", ERR_VALUE, "sig_algo contains invalid stringmd5"},
  };
  for (const auto& [type, name, value, code, text] : rows)
    expect(type, usual(type), name, value, code, text);
  const std::tuple<TYPE, ACTION, const char*, const char*> wrong[] = {
      {PPTP_CLIENT_TYPE, NONE_ACTION, "auth", "PPTP and L2TP only support --add or --modify"},
      {PPTP_SERVER_TYPE, ADD_ACTION, "auth", "SPPTP and SL2TP only support --modify"},
      {OVPN_CLIENT_TYPE, IMPORT_ACTION, "enc", "PPTP and OVPN only support --add or --modify"},
      {OVPN_SERVER_TYPE, ADD_ACTION, "enc", "SPPTP and SOVPN only support --modify"},
      {PPTP_CLIENT_TYPE, NONE_ACTION, "name", "only for --add --import or --modify"},
      {PPTP_CLIENT_TYPE, IMPORT_ACTION, "host", "only for --add or --modify"},
  };
  for (const auto& [type, action, name, text] : wrong)
    expect(type, action, name, "1", ERR_WRONG_ACTION, text);
  using Values = std::vector<const char*>;
  const std::tuple<TYPE, const char*, Values, Values> limits[] = {
      {PPTP_CLIENT_TYPE, "mask", {"32"}, {"7", "33"}},
      {PPTP_CLIENT_TYPE, "reconnect", {}, {"yes"}},
      {PPTP_CLIENT_TYPE, "fenro_port", {}, {"65536"}},
      {OVPN_CLIENT_TYPE, "proto", {}, {"tcp4"}},
      {OVPN_CLIENT_TYPE, "port", {"65535"}, {}},
      {WIREGUARD_CLIENT_TYPE, "port", {""}, {}},
      {OVPN_SERVER_TYPE, "maximum", {}, {"61"}},
      {PPTP_SERVER_TYPE, "maximum", {"5", "100"}, {"4", "101"}},
      {PPTP_SERVER_TYPE, "out_eif", {nullptr}, {}},
      {PPTP_SERVER_TYPE,
       "ip_pool",
       {"172.16.0.9", "172.31.255.9"},
       {"100.64.0.0", "172.15.255.9", "172.32.0.9", "11.0.0.9", "192.169.0.9", "192.168.1"}},
  };
  for (const auto& [type, name, good, bad] : limits) {
    for (const char* value : good) expect(type, usual(type), name, value, NO_ERROR, "");
    for (const char* value : bad) expect(type, usual(type), name, value, ERR_VALUE, value);
  }
}

TEST_F(OptionTest, RefusesCommandLinesThatSayNothingUsable) {
  const std::pair<std::vector<std::string>, std::string> rows[] = {
      {{}, ""},
      {{"--add", "--type=256"}, "Error: no type\n"},
      {{"--type=256", "--type=512"}, "Error: --type\n"},
      {{"--type=3"}, "Error: 3\n"},
      {{"--type="}, "Error: type\n"},
      {{"--type=256"}, "Usage: ormel [TYPE] [ACTION] [OPTIONS]\n"},
      {{"--type=256", "--nonsense"}, "Usage: ormel "},
      {{"--type"}, "Usage: ormel "},
      {{"-T256", "--add", "--add"}, "Error: --add\n"},
      {{"-T256", "--add", "--show=1"}, "Error: --show\n"},
      {{"-T256", "--connect="}, "Error: connect\n"},
      {{"-T256", "--connect=33"}, "Error: 33\n"},
      {{"-T256", "--remove=0"}, "Error: 0\n"},
      {{"-T256", "--show=33"}, "Error: 33\n"},
      {{"-T256", "--modify=2"}, "Error: no such config\n"},
      {{"-T256", "--modify=x"}, "Error: x\n"},
      {{"-T256", "--import=/etc/passwd"}, "Error: --import only for OpenVPN\n"},
      {{"-TOVPN", "--import=/etc"}, "Error: /etc\n"},
      {{"-T256", "--name=x", "--modify=1"}, "Error: only for --add --import or --modify\n"},
      {{"-T256", "--add", "--name=a\nEnable = TRUE"}, "Error: incorrect value\n"},
      {{"-T256", "--add", "--user=a\rb"}, "Error: incorrect value\n"},
  };
  for (const auto& [words, begin] : rows) {
    SCOPED_TRACE(testing::PrintToString(words));
    EXPECT_EQ(parse(words)->bc, nullptr);
    EXPECT_TRUE(errors.starts_with(begin)) << errors;
    EXPECT_EQ(errors.empty(), begin.empty()) << errors;
  }
}

TEST_F(OptionTest, KeepsAPasswordThatComesBackAsItsDigest) {
  PolyConfig record(config::make_record(PPTP_CLIENT_TYPE, 0));
  std::string& pass = record.cast<ClientConfig>()->pass = "secret";
  EXPECT_EQ(apply(record, "pass", openssl::sha1("secret").c_str()), NO_ERROR);
  EXPECT_EQ(pass, "secret");
  is_cgi_mode = true;
  EXPECT_EQ(apply(record, "pass", openssl::base64_encode(openssl::sha1("secret")).c_str()),
            NO_ERROR);
  EXPECT_EQ(pass, "secret");
  EXPECT_EQ(apply(record, "pass", openssl::base64_encode("new").c_str()), NO_ERROR);
  EXPECT_EQ(pass, "new");
  is_cgi_mode = false;
  EXPECT_EQ(apply(record, "pass", std::string(512, 'p').c_str()), NO_ERROR);
  EXPECT_EQ(apply(record, "pass", std::string(513, 'p').c_str()), ERR_PASS_LENGTH);
}

TEST_F(OptionTest, TestsThePoolOnlyOfAServerThatIsOn) {
  auto* l2tp = cm.fetch(L2TP_SERVER_TYPE, 0)->cast<config::ServerConfig>();
  l2tp->enable = true;
  l2tp->ip_begin = "10.5.0.2";
  PolyConfig record(config::make_record(PPTP_SERVER_TYPE, 0));
  auto* server = record.cast<config::ServerConfig>();
  EXPECT_EQ(apply(record, "enable", "1"), ERR_VALUE) << "a server without a pool";
  server->enable = false;
  EXPECT_EQ(apply(record, "ip_pool", "10.5.0.77"), NO_ERROR);
  EXPECT_EQ(server->ip_begin, "10.5.0.2");
  EXPECT_EQ(server->ip_end, "10.5.0.254");
  EXPECT_EQ(apply(record, "enable", "1"), ERR_IP_POOL_CONFLICT);
  EXPECT_EQ(errors, "Error: 10.5.0.2\n");
  EXPECT_EQ(apply(record, "ip_pool", "10.5.0.9"), ERR_IP_POOL_CONFLICT);
}

TEST_F(OptionTest, TakesAFormWithTheStateOfAServerFirstOrLast) {
  auto* l2tp = cm.fetch(L2TP_SERVER_TYPE, 0)->cast<config::ServerConfig>();
  l2tp->enable = true;
  l2tp->ip_begin = "10.5.0.2";
  for (const auto& [state, code] :
       {std::pair("FALSE", NO_ERROR), std::pair("1", ERR_IP_POOL_CONFLICT)}) {
    SCOPED_TRACE(state);
    const std::string form = "sid=x&ip_pool=10.5.0.0&up=/bin/dash&metadata=&enable=";
    setenv("QUERY_STRING", (form + state).c_str(), 1);
    const CgiRequest request(cgi_default_settings);
    unsetenv("QUERY_STRING");
    auto record = std::make_unique<PolyConfig>(config::make_record(PPTP_SERVER_TYPE, 0));
    record->cast<config::ServerConfig>()->ip_begin = "10.0.0.2";
    record->cast<config::ServerConfig>()->enable = true;
    int rc = -1;
    testing::internal::CaptureStderr();
    record = get_options(std::move(record), request.vars(), rc);
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(rc, code);
    EXPECT_EQ(record->bc == nullptr, code != NO_ERROR);
  }
  is_cgi_mode = false;
}

TEST_F(OptionTest, SurvivesNullValuesOfAForm) {
  for (const CommandOption* row = COMMAND_OPTIONS; row->fpr; ++row) {
    if (!row->cgi) continue;
    for (const TYPE type : TYPES) {
      PolyConfig record(config::make_record(type, 0));
      record->action = MODIFY_ACTION;
      std::ignore = apply(record, row->opt.name, nullptr);  // the tables say what it answers
    }
  }
}

}  // namespace
}  // namespace ormel::option
