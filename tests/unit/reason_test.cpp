#include "base/reason.h"

#include <set>

#include <gtest/gtest.h>

#include "ormel/actions/tunnel_state.h"
#include "ormel/base/error.h"
#include "ormel/drivers/pptp.h"

namespace ormel {
namespace {

TEST(Reasons, HaveCodesOfTheirOwnAndSayWhatToDo) {
  std::set<std::string_view> codes;
  for (const ReasonFacts& row : REASONS) {
    SCOPED_TRACE(row.code);
    EXPECT_TRUE(codes.insert(row.code).second);
    EXPECT_EQ(find_reason(row.code), &row);
    EXPECT_TRUE(std::string_view(row.advice).ends_with('.'));
    EXPECT_STRNE(get_error_message(static_cast<unsigned>(row.error)), "unknown error");
  }
  EXPECT_EQ(find_reason(""), nullptr);
}

TEST(ReasonSections, AreThoseOfServersAndProfiles) {
  for (const char* section : {"PPTP", "WG", "OPENVPN_CLIENT1", "DROVIK_CLIENT32"})
    EXPECT_TRUE(is_tunnel_section(section)) << section;
  for (const char* section : {"", "global", "WG_CLIENT", "WG_CLIENT0", "WG_CLIENT01", "WG_CLIENT33",
                              "L2TP_CLIENT1 ", "../PPTP", "PPTP/..", "PPTP_CLIENT-1", "OPENVPN1"})
    EXPECT_FALSE(is_tunnel_section(section)) << section;
}

TEST(ReasonDetail, KeepsOnlyWhatCanBeShown) {
  const std::pair<std::string, std::string> rows[] = {
      {"AUTH_FAILED, gesperrt für 5 min €", "AUTH_FAILED, gesperrt für 5 min €"},
      {"a\n\"b\"\t\x1b[31m\x7f", "a?\"b\"??[31m?"},
      {"\xc3(\xff\x80\xe2\x82", "?(????"},
      {"\xc0\xaf|\xed\xa0\x80|\xf4\x90\x80\x80", "??|???|????"},
      {"left\xe2\x80\xaeright\xc2\x85", "left???right??"},
      {std::string("\0x", 2), "?x"},
      {std::string(500, 'x'), std::string(200, 'x')},
      {std::string(199, 'x') + "€", std::string(199, 'x')},
  };
  for (const auto& [text, shown] : rows) EXPECT_EQ(printable_detail(text), shown);
}

TEST(ReasonLine, IsOneLineOfJsonWhateverTheDetailHolds) {
  const NotedReason reason{find_reason("login-refused"), 5, 7, 2, "he said: \"no\"\\\n}"};

  EXPECT_EQ(reason_line(reason),
            "{\"code\":\"login-refused\",\"since\":5,\"at\":7,\"count\":2,\"detail\":\"he said: "
            "\\\"no\\\"\\\\?}\"}\n");
}

TEST(TunnelStates, OfAClientGoByProcessAndAddress) {
  constexpr std::tuple<bool, pid_t, const char*, State> ROWS[] = {
      {false, 0, "10.0.0.2", State::Off}, {true, 7, "10.0.0.2", State::Up},
      {false, 7, "10.0.0.2", State::Up},  {true, 7, "", State::Starting},
      {false, 7, "", State::Starting},
  };
  for (const auto& [enable, process, address, state] : ROWS) {
    pptp::ClientConfig client(32);
    client.enable = enable;
    client.pid = process;
    client.local_ip = address;
    client.timestamp = 5;
    const TunnelState found = tunnel_state(client);
    EXPECT_STREQ(state_name(found.state), state_name(state)) << process << address;
    EXPECT_EQ(found.since, state == State::Up ? 5 : 0);
    EXPECT_EQ(found.settled(), state != State::Starting);
  }
}

TEST(TunnelStates, KnowAFailureThatTheScriptsReport) {
  constexpr std::string_view FILE = "first = TRUE\nrules = FALSE\nlast = TRUE\nopen = FALSE";
  for (const char* line : {"rules", "open"}) EXPECT_TRUE(reports_failure(FILE, line)) << line;
  for (const char* line : {"first", "last", "none"})
    EXPECT_FALSE(reports_failure(FILE, line)) << line;
}

}  // namespace
}  // namespace ormel
