#include "ormelctl/doctor.h"

#include <gmock/gmock.h>

namespace ormelctl {
namespace {

std::string findings_of(const std::string& log) {
  std::string text;
  for (const Finding& one : read_openvpn_log(log))
    text += one.step + (one.mark == Mark::Failure ? ":fail " : ":ok ");
  return text;
}

TEST(Doctor, ReadsTheLogOfItsDaemon) {
  const std::string hello = "TLS: Initial packet from [AF_INET]192.0.2.1:1194, sid=1\n";
  const std::string verified = hello + "VERIFY OK: depth=1, CN=CA\nVERIFY OK: depth=0, CN=far\n";
  const std::pair<std::string, const char*> rows[] = {
      {"", "server:fail "},
      {"TLS Error: TLS key negotiation failed to occur within 60 seconds\n", "server:fail "},
      {hello, "server:ok certificate:fail "},
      {hello + "VERIFY ERROR: depth=1, error=self-signed certificate in certificate chain: CN=x\n",
       "server:ok certificate:fail "},
      {verified + "AUTH: Received control message: AUTH_FAILED\n",
       "server:ok certificate:ok login:fail "},
      {verified + "Initialization Sequence Completed\n", "server:ok certificate:ok login:ok "},
      {verified, "server:ok certificate:ok login:fail "},
      {"Options error: Unrecognized option\n", "server:fail "},
  };
  for (const auto& [log, findings] : rows) EXPECT_EQ(findings_of(log), findings) << log;
  EXPECT_EQ(read_openvpn_log(verified + "AUTH_FAILED\n")[1].text, "CN=far");
}

TEST(Doctor, EndsAProgramThatHangsAndReadsOneThatEnds) {
  const LimitedRun ended = run_limited({"/bin/cat"}, "a secret", 30);
  EXPECT_EQ(ended.status, 0);
  EXPECT_EQ(ended.out, "a secret");
  const LimitedRun enough = run_limited({"/bin/sh", "-c", "echo one; exec sleep 60"}, "", 30,
                                        [](const std::string& line) { return line == "one"; });
  EXPECT_TRUE(enough.in_time);
  EXPECT_FALSE(run_limited({"/bin/sleep", "600"}, "", 1).in_time);
  EXPECT_EQ(run_limited({"/bin/sh", "-c", "exec >&- 2>&-; sleep 600"}, "", 1).status, -1)
      << "closes its output and hangs";
}

}  // namespace
}  // namespace ormelctl
