#include <algorithm>
#include <ctime>
#include <limits>

#include <gtest/gtest.h>

#include "ormel/base/error.h"
#include "ormel/drivers/openvpn/profile.h"
#include "support/scratch_file.h"

namespace ormel::option {
namespace {

using support::ScratchFile;

ConfigFile parse(const char* text) {
  ConfigFile cf;
  cf.parse_content(text);
  return cf;
}

std::string describe(const ConfigFileOption& options) {
  std::string out;
  for (const FileOption& option : options) {
    const bool block = option.type == INLINE_OPTION_TYPE;
    out += (block ? "<" + option.name + ">" : option.name) + "=" + option.value + "|";
  }
  return out;
}

std::string describe(const OpenvpnRemotesOption& remotes) {
  std::string out;
  for (const OpenvpnRemotes& remote : remotes) {
    out += remote.remote_ip + "," + remote.remote_port + "," + remote.remote_proto;
    for (const auto& [key, value] : remote.others)
      out.append(",").append(key).append("=").append(value);
    out += "|";
  }
  return out;
}

struct ParseCase {
  const char* what;
  const char* text;
  const char* options;
  const char* remotes = "";
};

constexpr ParseCase PARSE_CASES[] = {
    {"nothing", "", ""},
    {"comments and blank lines", "# a\n ;b\n\t#c\r\n \t\n\n  \t ", ""},
    {"line ends of any kind", "client\r\ndev tun\rnobind\n", "client=|dev=tun|nobind=|"},
    {"blanks around", "  dev \t tun  0 \t\n", "dev=tun  0|"},
    {"a later line replaces", "cipher A\ndev tun\ncipher B", "dev=tun|cipher=B|"},
    {"repeatable lines stay", "route 1\nroute 2\nplugin a\nplugin b",
     "route=1|route=2|plugin=a|plugin=b|"},
    {"a word of a repeatable name", "remote-cert-tls a\nremote-cert-tls b",
     "remote-cert-tls=a|remote-cert-tls=b|"},
    {"leading dashes", "client 1\n--client 2", "client=1|client=2|"},
    {"the plain name replaces the dashed one", "--client 1\nclient 2", "client=2|"},
    {"the name is found anywhere in the line", "!%dev tun", "dev=tun|"},
    {"a line without a name", "client\n!%&\ndev tun", ""},
    {"a name of dashes alone", "client\n--- up /bin/sh", ""},
    {"a block", "client\n<ca>\n A \n</ca>\ndev tun", "client=|<ca>=A|dev=tun|"},
    {"a block on one line with more behind it", "<ca>A</ca> dev tun", "<ca>=A|dev=tun|"},
    {"a later block replaces", "<ca>A</ca>\n<ca>B</ca>", "<ca>=B|"},
    {"a block replaces a line", "ca x\n<ca>A</ca>", "<ca>=A|"},
    {"a longer closing tag", "<ca>A</cax>", "<ca>=A|"},
    {"a shorter closing tag", "client\n<cax>A</ca>", ""},
    {"a broken block does not jump to the next one", "client\n<ca A\n<cert>B</cert>", ""},
    {"a block with a bracket in it", "client\n<ca>A < B</ca>", ""},
    {"a block that does not end", "client\n<ca>A", ""},
    {"a tag that is no name", "client\n<->A</->", ""},
    {"remotes", "remote a 1194 udp x\nclient\nremote b", "client=|", "a,1194,udp|b,,|"},
    {"a dashed remote is an option", "--remote a", "remote=a|"},
    {"remotes before a fault stay", "remote a\n%", "", "a,,|"},
    {"a connection",
     "<connection>\n;x\nremote a 1 tcp\n float \nport  2 \nport 3\n</connection>\nclient",
     "client=|", "a,1,tcp,float=,port=3|"},
    {"a connection without a remote", "<connection>\n</connection>", "", ",,|"},
    {"two remotes in a connection", "client\n<connection>\nremote a\nremote b\n</connection>", ""},
    {"a fault in a connection", "client\n<connection>\n!\n</connection>", ""},
    {"a tag that begins the word connection runs on to its end",
     "<conn>\nremote a\n</conn>\nclient\ndev tun", "client=|dev=tun|",
     "a,,,client=,conn=>,dev=tun|"},
    {"a remote on the closing tag's line", "<connection>\nremote a 1 udp</connection>\nclient",
     "client=|", "a,1,udp</connection>,client=|"},
};

TEST(ConfigFileParse, ReadsLinesBlocksAndRemotes) {
  for (const ParseCase& row : PARSE_CASES) {
    SCOPED_TRACE(row.what);
    ConfigFile cf;
    EXPECT_EQ(cf.parse_content(row.text), NO_ERROR);
    EXPECT_EQ(describe(cf.options), row.options);
    EXPECT_EQ(describe(cf.get_all_remotes()), row.remotes);
  }
}

std::string many(int count, const std::string& before, const std::string& behind) {
  std::string out;
  for (int number = 0; number < count; ++number)
    out.append(before).append(std::to_string(number)).append(behind);
  return out;
}

// Processor time of the quickest of a few parses.
std::clock_t parse_time(const std::string& text) {
  std::clock_t quickest = std::numeric_limits<std::clock_t>::max();
  for (int round = 0; round < 3; ++round) {
    ConfigFile cf;
    const std::clock_t start = std::clock();
    cf.parse_content(text.c_str());
    quickest = std::min(quickest, std::clock() - start);
  }
  return std::max<std::clock_t>(quickest, 1);
}

// A walk over list or text for each line would take 64 times as long for 8 times the text.
TEST(ConfigFileParse, TakesTimeInProportionToTheText) {
  constexpr int LONGER = 8;
  constexpr int MOST = 3 * LONGER;
  const std::pair<const char*, std::string (*)(int)> shapes[] = {
      {"names", [](int n) { return many(6000 * n, "n", " v\n"); }},
      {"the same names twice",
       [](int n) { return many(6000 * n, "n", " v\n") + many(6000 * n, "n", " v\n"); }},
      {"routes", [](int n) { return many(6000 * n, "route ", "\n"); }},
      {"blocks", [](int n) { return many(5000 * n, "<b", ">x</b>\n"); }},
      {"connections that would each go over all that follow",
       [](int n) { return many(5000 * n, "<c>x", "</c>\n"); }},
      {"a long line",
       [](int n) { return "client " + std::string(size_t{600000} * static_cast<size_t>(n), 'x'); }},
      {"a long block",
       [](int n) {
         return "<ca>" + std::string(size_t{600000} * static_cast<size_t>(n), 'x') + "</ca>";
       }},
  };
  for (const auto& [what, text] : shapes) {
    const std::clock_t once = parse_time(text(1));
    EXPECT_LT(parse_time(text(LONGER)), MOST * once) << what << ", " << once << " us";
  }
}

TEST(ConfigFileSave, SortsAndPutsTheServersBeforeTheCertificate) {
  const ScratchFile file;
  ConfigFile cf =
      parse("<key>K</key>\nroute 2\nnobind\n<ca>A</ca>\nroute 1\nremote a 1 udp\nremote b 2 tcp");
  OpenvpnRemotesOption remotes = cf.get_all_remotes();
  remotes[0].others = {{"socks-proxy", "x"}, {"float", ""}};
  ASSERT_EQ(cf.save(file.path().c_str(), true, remotes), NO_ERROR);
  EXPECT_EQ(file.content(),
            "nobind\nroute 2\nroute 1\n"
            "\n<connection>\nremote a 1 udp\nfloat \nsocks-proxy x\n</connection>\n"
            "\n<connection>\nremote b 2 tcp\n</connection>\n"
            "\n<ca>\nA\n</ca>\n\n<key>\nK\n</key>\n\n");
  cf = parse("verb 3\nclient\nremote a");
  ASSERT_EQ(cf.save(file.path().c_str(), false, cf.get_all_remotes()), NO_ERROR);
  EXPECT_EQ(file.content(), "verb 3\nclient\n") << "no servers without a certificate";
}

TEST(ConfigFileSave, ReportsWhatCannotBeWritten) {
  const support::Scratch scratch;
  std::filesystem::create_symlink("elsewhere", scratch.path("link"));
  for (const std::string& target : {std::string("/"), std::string("/no/client1"),
                                    std::string("/dev/full"), scratch.path("link")}) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(parse("client").save(target.c_str(), true, {}), ERR_SAVE_FILE);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Error: " + target + "\n");
  }
}

TEST(ConfigFileLoad, TakesRegularFilesOnly) {
  const support::Scratch scratch;
  const std::string file = scratch.write("file", "client"), link = scratch.path("link");
  std::filesystem::create_symlink(file, link);
  ConfigFile cf;
  EXPECT_EQ(cf.load(file.c_str()), NO_ERROR);
  for (const char* other : {"/", "/none", "/dev/zero", link.c_str()})
    EXPECT_EQ(cf.load(other), ERR_REGULAR_FILE) << other;
  EXPECT_EQ(describe(cf.options), "client=|");
}

}  // namespace
}  // namespace ormel::option
