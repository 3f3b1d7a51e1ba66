// The keys of the OpenVPN server, by the tool that replaces them: killed wherever it changes a
// file, called twice at once, and with files that are lost. No server runs.
// appliance: --no-daemons

#include <map>
#include <regex>
#include <set>
#include <sstream>

#include "support/web_request.h"

using namespace ormel::test;

namespace {

constexpr const char* TOOL = "/usr/lib/fenro/ovpn-keys";
const std::string KEYS = "/etc/openvpn/keys/";
constexpr const char* KEPT = "/root/keys";
const std::string END = "-----END CERTIFICATE-----\n";

std::string key(const char* name) {
  return read(KEYS + name);
}

std::string first_of(const std::string& bundle) {
  return bundle.substr(0, bundle.find(END) + END.size());
}

// A script of the functions that a start of the server uses.
int keys(const std::string& script) {
  return run({"/bin/sh", "-c",
              ". /usr/lib/fenro/vpn_lib.sh; . /usr/lib/fenro/ovpn_keys.sh; " + script})
      .status;
}
int start() {
  return keys("make_keys sha256");
}
bool fit() {
  return keys("read_rotation; certificate_usable ca && server_usable") == 0;
}

Result tool(std::vector<std::string> words) {
  words.insert(words.begin(), TOOL);
  return run(words);
}

class OpenVpnKeys : public testing::Test {
 protected:
  void SetUp() override {
    fs::remove_all(KEYS);
    ASSERT_EQ(start(), 0);
  }
  void TearDown() override {
    fs::remove_all(KEYS);
    fs::remove_all(KEPT);
  }
  static void copy(const std::string& from, const std::string& to) {
    fs::remove_all(to);
    fs::copy(from, to, fs::copy_options::recursive);
  }
  // Where the tool starts a child that changes a file, as strace takes it: it counts each call that
  // starts one by itself.
  static std::vector<std::string> changing_points(const std::vector<std::string>& step) {
    EXPECT_EQ(traced({"-f", "-o", "/tmp/trace", "-e", "trace=execve,clone,vfork"}, step).status, 0);
    const std::string trace = read("/tmp/trace");
    const std::string parent = trace.substr(0, trace.find(' '));
    std::vector<std::pair<std::string, std::string>> children;  // process and point
    std::map<std::string, int> calls;
    std::set<std::string> changing;  // processes
    std::istringstream lines(trace);
    for (std::string line; std::getline(lines, line);) {
      const std::string process = line.substr(0, line.find(' '));
      std::smatch found;
      if (std::regex_search(line, std::regex(" execve\\(.*/(mv|rm)\"")))
        changing.insert(process);
      else if (process == parent &&
               std::regex_search(line, found, std::regex("(clone|vfork).* = ([0-9]+)$")))
        children.emplace_back(
            found[2], found[1].str() + ":signal=KILL:when=" + std::to_string(++calls[found[1]]));
    }
    std::vector<std::string> points;
    for (const auto& [process, point] : children) {
      if (changing.contains(process)) points.push_back(point);
    }
    return points;
  }
};

TEST_F(OpenVpnKeys, FitWhereverAStepIsKilled) {
  const std::vector<std::vector<std::string>> steps = {{TOOL, "rotate", "86400"},
                                                       {TOOL, "advance"}};
  for (const auto& step : steps) {
    const std::string old = first_of(key("ca.crt"));
    copy(KEYS, KEPT);
    const std::vector<std::string> points = changing_points(step);
    EXPECT_GE(points.size(), 4U) << step[1];
    for (const std::string& point : points) {
      SCOPED_TRACE(step[1] + ' ' + point);
      copy(KEPT, KEYS);
      EXPECT_NE(traced({"-o", "/dev/null", "-e", "inject=" + point}, step).status, 0);
      comes_true([] { return run({"/usr/bin/pgrep", "-x", "openssl|mv|sync|rm"}).status == 1; });
      EXPECT_EQ(start(), 0);
      EXPECT_TRUE(fit());
      EXPECT_NE(key("ca.crt").find(old), std::string::npos) << "nobody is locked out";
      const bool begun = fs::exists(KEYS + "rotation");
      EXPECT_EQ(key("ca.crt") != old, begun) << "profiles have both, or there is no rotation";
      for (const char* secret : {"ca.key", "myserver.key"})
        EXPECT_EQ(mode_of(KEYS + secret), 0600U) << secret;
    }
    copy(KEPT, KEYS);
    ASSERT_EQ(run(step).status, 0);
  }
  EXPECT_THAT(key("rotation"), HasSubstr("phase=changed"));
}

TEST_F(OpenVpnKeys, AreReplacedByOneOfTwoAtOnceAndNotAfterACancel) {
  const std::string before = key("ca.crt");
  run({"/bin/sh", "-c", std::string(TOOL) + " rotate 3600 & " + TOOL + " rotate 7200; wait"},
      {"PATH=/usr/bin:/bin"});
  const std::string both = key("ca.crt");
  EXPECT_EQ(both.find(END, before.size() + END.size()), both.size() - END.size()) << "two of them";
  EXPECT_EQ(tool({"rotate", "3600"}).status, 4);
  // A profile with both authorities still works.
  EXPECT_EQ(tool({"cancel"}).status, 0);
  EXPECT_EQ(key("ca.crt"), before);
  EXPECT_FALSE(fs::exists(KEYS + "next.key"));
  EXPECT_TRUE(fit());
  EXPECT_EQ(tool({"rotate", "3600"}).status, 0);
  EXPECT_NE(key("ca.crt"), both) << "the one that was cancelled does not come back";
}

// The server starts, with the authority that clients know if that one's key is left.
TEST_F(OpenVpnKeys, ServeThoughAPieceOfARotationIsLost) {
  const std::string old = key("ca.crt");
  ASSERT_EQ(tool({"rotate", "86400"}).status, 0);
  copy(KEYS, KEPT);
  const std::string fresh = first_of(key("next.crt"));
  const auto phase = [](const std::string& name) {
    std::string text = key("rotation");
    write(KEYS + "rotation", text.replace(6, text.find('\n') - 6, name));
  };
  const std::tuple<const char*, std::vector<const char*>, const char*, std::string> rows[] = {
      {"the new key", {"next.key"}, "overlap", old},
      {"the new authority", {"next.key", "next.crt"}, "changing", old},
      {"the certificate that signs", {"ca.crt"}, "overlap", fresh},
      {"the authority that signs", {"ca.crt", "ca.key"}, "overlap", fresh},
      {"the authority that signs, in the change", {"ca.crt", "ca.key"}, "changing", fresh},
  };
  for (const auto& [what, lost, name, signer] : rows) {
    SCOPED_TRACE(what);
    copy(KEPT, KEYS);
    phase(name);
    for (const char* file : lost) fs::remove(KEYS + file);
    if (signer == fresh) {
      EXPECT_NE(tool({"cancel"}).status, 0) << "the last authority is not forgotten";
    }
    EXPECT_EQ(start(), 0);
    EXPECT_TRUE(fit());
    EXPECT_EQ(first_of(key("ca.crt")), signer);
  }
}

// A disk without space keeps the server from changing over, not from running.
TEST_F(OpenVpnKeys, ServeWithoutSpaceForTheNextStep) {
  ASSERT_EQ(tool({"rotate", "86400"}).status, 0);
  std::string text = key("rotation");
  text.replace(text.find("change="), std::string::npos, "change=1000\nend=2000\n");
  write(KEYS + "rotation", text);
  const std::string before = key("ca.crt") + key("ca.key") + key("myserver.crt");
  EXPECT_EQ(keys("write_file() { return 1; }; make_keys sha256"), 0);
  EXPECT_EQ(key("ca.crt") + key("ca.key") + key("myserver.crt"), before);
  EXPECT_EQ(start(), 0);
  EXPECT_THAT(key("rotation"), HasSubstr("phase=changed"));
}

// An administrator's own authority, which another one has signed.
TEST_F(OpenVpnKeys, OfAnOwnChainStay) {
  const std::string chain =
      "cd /etc/openvpn/keys && mv ca.crt root.crt && mv ca.key root.key && "
      "make_certificate ca root '/CN=own' sha256 'basicConstraints=critical,CA:TRUE' && "
      "cat root.crt >>ca.crt && make_server_certificate sha256";
  ASSERT_EQ(keys(chain), 0);
  const std::string before = key("ca.crt") + key("myserver.crt");
  EXPECT_EQ(start(), 0);
  EXPECT_EQ(key("ca.crt") + key("myserver.crt"), before);
  EXPECT_THAT(tool({"rotate", "3600"}).err, HasSubstr("more than one certificate"));
  EXPECT_EQ(tool({"renew"}).status, 0);
  EXPECT_TRUE(fit());
}

}  // namespace
