// Bash completion of the command line, as it is installed.
#include "support/appliance_host.h"

namespace ormel::test {
namespace {

constexpr const char* ASK =
    "source /usr/share/bash-completion/completions/ormel; COMP_TYPE=$0 COMP_WORDS=(ormel \"$@\") "
    "COMP_CWORD=$#; _ormel; printf '%s|' \"${COMPREPLY[@]}\"";
constexpr const char* TAB = "9";
constexpr const char* LISTING = "63";
constexpr const char* CRACKED = "/tmp/cracked";

class Completion : public ProfileHost {};

TEST_F(Completion, OffersWhatFitsAndExpandsNoName) {
  write(
      VPN_CONF,
      std::string("[PPTP_CLIENT1]\nIndex = 1\nProfile File = office\n[PPTP_CLIENT2]\nIndex = 0\n") +
          "[PPTP_CLIENT12]\nIndex = 12\nProfile File = `touch " + CRACKED + "` $(touch " + CRACKED +
          ")\x1b[31m\n[L2TP_CLIENT3]\nIndex = 3\n[PPTP_CLIENT1 0]\nIndex = 1\n");
  const std::tuple<std::vector<std::string>, const char*, std::string> cases[] = {
      // the words as readline parts them, the last one at hand
      {{""}, TAB, "--type=|"},
      {{"--type", "=", "SP"}, TAB, "SPPTP|"},
      {{"--type", "=", "pptp", ""},
       TAB,
       "--add|--remove=|--modify=|--show=|--connect=|--disconnect=|"},
      {{"-T", "SPPTP", ""}, TAB, "--modify=|--show=|"},
      {{"-T", "OVPN", "--i"}, TAB, "--import=|"},
      {{"-T", "256", "--add", "--ho"}, TAB, "--host=|"},
      {{"-T", "256", "--add", "--host", "=", "x", "--ho"}, TAB, "|"},
      {{"-T", "PPTP", "--add", "--ip_p"}, TAB, "|"},
      {{"-T", "PPTP", "--connect", "="}, TAB, "1|12|"},
      {{"-T", "PPTP", "--show", "=", ""}, TAB, "0|1|12|"},
      {{"-T", "PPTP", "-c", "1"},
       LISTING,
       std::string("1 (office)|12 (`touch ") + CRACKED + "` $(touch " + CRACKED + ")?[31m)|"},
      {{"-T", "PPTP", "-c", "12"}, LISTING, "12|"},
      {{"-T", "SPPTP", "--modify", "="}, TAB, "0|"},
      {{"-T", "SPPTP", "-M", "0", "--auth", "=", "M"}, TAB, "MS-CHAP|MS-CHAPV2|"},
      {{"-T", "SPPTP", "-M", "0", "--out_eif", "=", "e"}, TAB, "eth0|"},
      {{"-T", "OVPN", "--import", "=", "/etc/hostn"}, TAB, "/etc/hostname|"},
  };

  for (const auto& [words, kind, offered] : cases) {
    std::vector<std::string> command{"/bin/bash", "-c", ASK, kind};
    command.insert(command.end(), words.begin(), words.end());
    const Result result = run(command);
    EXPECT_EQ(result.out + result.err, offered) << testing::PrintToString(words);
  }
  EXPECT_FALSE(fs::exists(CRACKED));
}

}  // namespace
}  // namespace ormel::test
