// The life of a profile from the command line, with the real libraries and daemons.
#include "support/appliance_host.h"

using namespace ormel::test;

namespace {

const std::vector<std::string> ADD = {"--type=PPTP",      "--add",           "--name=of%20fice",
                                      "--host=127.0.0.1", "--user=bob \"#;", "--pass=p=1",
                                      "--enc=high"};

class PptpProfile : public ProfileHost {
 protected:
  void SetUp() override {
    ProfileHost::SetUp();
    bus("NetworkService", "external_dev.unregister", R"({"key":"PPTP_CLIENT1"})");
  }
};

TEST_F(PptpProfile, IsAddedWithFileNotificationRegistrationAndRoute) {
  const Result added = cli(ADD);
  EXPECT_EQ(added.status, 0) << added.err;
  EXPECT_THAT(
      added.out,
      HasSubstr("[PPTP_CLIENT1]\nEnable = 0\nIndex = 1\nFENRO Port = 0\nLast Error = 0\n"
                "Reconnect = 1\nCustom Mask = 0\nProfile File = of%20fice\nName = bob \"#;\n"));
  EXPECT_THAT(added.out, EndsWith("Country Code = \nEncryption = 2\nAuthentcation = 2\n\n"));
  EXPECT_THAT(read(VPN_CONF),
              HasSubstr("\n[PPTP_CLIENT1]\nEnable = FALSE\nMask = 24\nIndex = 1\nFENRO Port = 0\n"
                        "Last Error = 0\nImported = 0\nReconnect = 1\nCustom Mask = FALSE\n"
                        "Profile File = of%20fice\nName = bob \"#;\nAccessCode = cD0x\n"
                        "Server Address = 127.0.0.1\n"));
  EXPECT_THAT(
      read(VPN_CONF),
      HasSubstr("\nDNS Server = \nDomain IP = 127.0.0.1\nEncryption = 2\nAuthentcation = 2\n"));
  EXPECT_EQ(mode_of(VPN_CONF), 0600U);
  EXPECT_THAT(recorded("vpn_common.sh", 1), ElementsAre("add_vpnclient_profile|ppp1001"));
  EXPECT_THAT(recorded("notify", 1),
              ElementsAre("send|-A|A238|-C|C002|-M|0010|-l|info|-t|3|[{0}] Added the {1} profile: "
                          "\"{2}\".|ORMEL Service|PPTP|of fice"));
  EXPECT_THAT(bus("NetworkService", "external_dev.list", R"({"key":"PPTP_CLIENT1"})"),
              HasSubstr(R"("profile":"of%20fice")"));
}

TEST_F(PptpProfile, IsChangedWithoutLibcurl) {
  cli(ADD);
  for (const char* name : {"office", "of%20fice"}) {
    const Result changed =
        run({"/usr/sbin/ormel", "-T256", "--modify=1", std::string("--name=") + name},
            {"LD_DEBUG=files"});
    EXPECT_THAT(changed.err, Not(HasSubstr("libcurl"))) << name;
    EXPECT_THAT(changed.err, HasSubstr("libfenro"));
  }
}

TEST_F(PptpProfile, ConnectsDisconnectsAndGoes) {
  cli(ADD);
  write("/etc/config/ppp/peers/pptpclient1", "x");
  const Result connected = cli({"-T256", "--connect=1"});
  EXPECT_EQ(connected.status, 0);
  EXPECT_THAT(connected.out, AllOf(HasSubstr("Enable = 1\n"), HasSubstr("Status = 2\n")));
  EXPECT_EQ(conf_value("PPTP_CLIENT1", "Enable"), "TRUE");
  EXPECT_THAT(recorded("vpn_pptp_client.sh"), ElementsAre("start|1"));
  run({"/sbin/setcfg", "PPTP_CLIENT1", "LocalIP", "10.9.9.2", "-f", VPN_CONF});
  EXPECT_THAT(cli({"-T256", "--show=1"}).out, HasSubstr("Status = 1\n"));
  const Result disconnected = cli({"-T256", "--disconnect=1"});
  EXPECT_EQ(disconnected.status, 0);
  EXPECT_THAT(disconnected.out, HasSubstr("Status = 0\n"));
  EXPECT_EQ(conf_value("PPTP_CLIENT1", "Enable"), "FALSE");
  EXPECT_EQ(cli({"-T256", "--remove=1"}).status, 0);
  EXPECT_THAT(read(VPN_CONF), Not(HasSubstr("PPTP_CLIENT1")));
  EXPECT_FALSE(fs::exists("/etc/config/ppp/peers/pptpclient1"));
  EXPECT_EQ(recorded("vpn_common.sh", 2).size(), 2U);
  EXPECT_THAT(recorded("vpn_pptp_client.sh"), ElementsAre("start|1", "stop|1", "stop|1"));
  EXPECT_THAT(recorded("notify", 4),
              UnorderedElementsAre(HasSubstr("|0010|"), HasSubstr("C002|-M|0006|"),
                                   HasSubstr("C002|-M|0007|"), HasSubstr("C002|-M|0008|-l|warn|")));
  EXPECT_EQ(bus("NetworkService", "external_dev.list"), R"({"error":0,"data":{}})");
}

TEST_F(PptpProfile, IsNotStartedTwiceWhileItsDaemonLives) {
  cli(ADD);
  run({"/sbin/setcfg", "PPTP_CLIENT1", "Enable", "TRUE", "-f", VPN_CONF});
  int hold[2];
  ASSERT_EQ(pipe(hold), 0);
  // A shell that waits for input replaces the daemon, which is known by its command line.
  auto daemon = std::make_unique<Child>([&] {
    dup2(hold[0], 0);
    return execl("/bin/sh", "/usr/lib/fenro/pppd-pptp", "-c", "read line", "call", "pptpclient1",
                 nullptr);
  });
  ASSERT_TRUE(comes_true([] {
    return run({"/usr/bin/pgrep", "-f", "read line call pptpclient1"}).status == 0;
  }));
  fs::remove(CALLS);
  EXPECT_EQ(cli({"-T256", "--connect=1"}).status, 0);
  EXPECT_THAT(recorded("vpn_pptp_client.sh"), IsEmpty());
  EXPECT_THAT(recorded("notify"), IsEmpty());
  daemon.reset();
  EXPECT_EQ(cli({"-T256", "--connect=1"}).status, 0);
  EXPECT_THAT(recorded("vpn_pptp_client.sh"), ElementsAre("start|1"))
      << "it is on, but its daemon has died";
}

TEST_F(PptpProfile, FillsTheLowestSlotAndStopsAtThirtyTwo) {
  std::string text;
  for (int i = 1; i <= 32; ++i) {
    if (i != 3)
      text += "[PPTP_CLIENT" + std::to_string(i) +
              "]\nIndex = 1\nProfile File = n\nServer Address = 127.0.0.1\n\n";
  }
  write(VPN_CONF, text);
  EXPECT_EQ(cli(ADD).status, 0);
  EXPECT_EQ(conf_value("PPTP_CLIENT3", "Profile File"), "of%20fice");
  EXPECT_EQ(conf_value("PPTP_CLIENT32", "Index"), "32") << "the section's own number counts";
  const Result full = cli(ADD);
  EXPECT_EQ(full.status, 10);
  EXPECT_EQ(full.out + full.err, "");
}

TEST_F(PptpProfile, AnswersWithTheStatusOfTheTable) {
  const std::tuple<std::vector<std::string>, int, const char*> rows[] = {
      {{}, 1, ""},
      {{"--type=PPTP", "--show=7"}, 30, "Error: no such config\n"},
      {{"--type=PPTP", "--show=-3"}, 30, "Error: no such config\n"},
      {{"--type=PPTP", "--show=0"}, 0, ""},
      {{"--type=SPPTP", "--connect=1"}, 3, ""},
      {{"--type=SPPTP", "--disconnect=1"}, 3, ""},
      {{"--type=SPPTP", "--remove=1"}, 30, "Error: no such config\n"},
      {{"--type=PPTP", "--add", "--host=127.0.0.1"},
       13,
       "Error: miss name or over maximum length\n"},
      {{"--type=PPTP", "--add", "--name=x"}, 11, "Error: miss host or over maximum length\n"},
  };
  for (const auto& [options, status, error] : rows) {
    SCOPED_TRACE(testing::PrintToString(options));
    const Result result = cli(options);
    EXPECT_EQ(result.status, status);
    EXPECT_EQ(result.err, error);
    EXPECT_EQ(result.out, "");
  }
  fs::create_symlink("/usr/sbin/ormel", "/tmp/ormel2");
  const Result other = run({"/tmp/ormel2"});
  EXPECT_EQ(other.status, 1);
  EXPECT_EQ(other.err, "ormel, oops !\n");
  EXPECT_FALSE(fs::exists(VPN_CONF)) << "nothing of this writes";
}

TEST_F(PptpProfile, TakesHostileTextWithoutHarm) {
  EXPECT_EQ(cli({"-T256", "-A", "--name=" + std::string(600, 'n'), "--host=127.0.0.1",
                 "--user=[x]\t= \x01\xff%n$(id)"})
                .status,
            0);
  EXPECT_EQ(conf_value("PPTP_CLIENT1", "Name"), "[x]\t= \x01\xff%n$(id)");
  EXPECT_THAT(cli({"-T256", "-S1"}).out, HasSubstr("Name = [x]\t= \x01\xff%n$(id)\n"));
}

class PptpServer : public ProfileHost {};

TEST_F(PptpServer, RestartsWhenItIsEditedWhileOn) {
  EXPECT_EQ(cli({"-TSPPTP", "-M0", "--enable=1", "--ip_pool=10.7.0.0", "--mss=1200"}).status, 0);
  EXPECT_THAT(recorded("vpn_pptp.sh", 2), ElementsAre("stop", "start"));
  EXPECT_THAT(recorded("vpn_common.sh", 1), ElementsAre("kick_all_connection|1|"));
  EXPECT_THAT(recorded("notify", 2),
              UnorderedElementsAre(HasSubstr("C001|-M|0003|"), HasSubstr("C001|-M|0001|")));
  EXPECT_EQ(conf_value("PPTP", "Client IP 2"), "10.7.0.254");
  EXPECT_EQ(conf_value("L2TP", "MSS"), "1200") << "they share an interface";
  fs::remove(CALLS);
  const Result edited = cli({"-TSPPTP", "-M0", "--auth=PAP"});
  EXPECT_EQ(edited.out, "[PPTP]\nEnable = 1\nAuthentcation = 1\nMSS = 1200\n\n");
  EXPECT_THAT(recorded("notify", 3),
              UnorderedElementsAre(HasSubstr("C001|-M|0003|"), HasSubstr("C003|-M|0014|"),
                                   HasSubstr("C003|-M|0016|")));
  fs::remove(CALLS);
  cli({"-TSPPTP", "-M0", "--enable=0"});
  EXPECT_THAT(recorded("vpn_pptp.sh"), ElementsAre("stop"));
  EXPECT_THAT(recorded("notify", 2),
              UnorderedElementsAre(HasSubstr("C001|-M|0003|"), HasSubstr("C001|-M|0002|")));
}

TEST_F(PptpServer, ForgetsTheFactoryKeyOfAFileWithoutVersion) {
  for (const auto& [version, key] :
       {std::pair("", ""), {"[global]\ndbversion = 0.0.1\n\n", "ZOLT"}}) {
    write(VPN_CONF, std::string(version) + "[L2TP]\nEnable = FALSE\nPSK = ZOLT\n");
    EXPECT_THAT(cli({"--type=SL2TP", "--show=0"}).out,
                HasSubstr(std::string("\nPSK = ") + key + '\n'))
        << version;
  }
}

TEST_F(PptpServer, LogsAScriptThatFailsAndSucceedsAllTheSame) {
  record_calls("/etc/init.d/vpn_pptp.sh", 7);
  EXPECT_EQ(cli({"-TSPPTP", "-M0", "--enable=1"}).status, 0);
  EXPECT_EQ(conf_value("PPTP", "Enable"), "TRUE");
  EXPECT_THAT(
      read(LOG),
      ContainsRegex(
          "^[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9:]{8} [0-9]+ \\[INFO\\] process.cpp \\[[0-9]+\\] "
          "invoke_vpn_script:Invoke VPN script by /etc/init.d/vpn_pptp.sh stop\n"));
  EXPECT_THAT(
      read(LOG),
      HasSubstr("invoke_vpn_script:Fail to start VPN by /etc/init.d/vpn_pptp.sh, output: \n"));
  EXPECT_EQ(mode_of(LOG), 0600U);
}

}  // namespace
