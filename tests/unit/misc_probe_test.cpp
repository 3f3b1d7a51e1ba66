#include "ormel/misc_probe.h"

#include <chrono>
#include <sys/socket.h>

#include <gtest/gtest.h>

#include "ormel/handle.h"
#include "ormel/misc_probe_packet.h"

namespace ormel::misc {
namespace {

std::string bytes_of(const ICMP_PACKET& packet) {
  return {reinterpret_cast<const char*>(&packet), sizeof packet};
}

TEST(EchoRequest, HoldsItsOwnChecksumAndFiller) {
  const std::string packet = bytes_of(echo_request(0x1234, 0x01020304));

  EXPECT_EQ(packet.substr(0, 2), std::string("\x08\0", 2));
  EXPECT_EQ(packet.substr(4, 9), std::string("\x34\x12\0\0\x04\x03\x02\x01\x08", 9));
  EXPECT_EQ(packet.substr(61), std::string("9:\0", 3));  // 57, 58
  // Every carry: the sum over the packet with its checksum is 0 whatever it holds.
  for (const uint32_t now : {0U, 1U, 0xffffU, 0xffffffffU, 0x7fff8000U}) {
    for (const uint16_t id : {uint16_t{0}, uint16_t{0xffff}, uint16_t{0x8001}})
      EXPECT_EQ(checksum(echo_request(id, now)), 0) << id << ' ' << now;
  }
}

TEST(NameServerQuery, AsksForTheNameServersOfItsOwnAddress) {
  const std::string head("\x12\x34\x01\0\0\x01\0\0\0\0\0\0", 12);
  const std::string tail("\0\x02\0\x01", 4);
  const struct {
    std::string server;
    std::string name;
  } rows[] = {
      {"8.8.4.4", std::string("\1"
                              "8\1"
                              "8\1"
                              "4\1"
                              "4\0",
                              9)},
      {"1.10.100.9", std::string("\1"
                                 "1\2"
                                 "10\3"
                                 "100\1"
                                 "9\0",
                                 12)},
      {"", std::string(2, '\0')},
      {".", std::string(3, '\0')},
      {std::string(1000, 'x'), '\x3f' + std::string(63, 'x') + '\0'},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.server);
    const std::string query = name_server_query(0x1234, row.server);
    EXPECT_EQ(query.substr(0, head.size()), head);
    EXPECT_EQ(query.substr(head.size(), row.name.size()), row.name);
    EXPECT_EQ(query.substr(head.size() + row.name.size()), tail);
    EXPECT_EQ(query.size(), std::min<size_t>(row.server.size(), 63) + 18);
  }
}

TEST(Answer, CountsWithAQuestionInAWholeHeader) {
  const std::string head("\x12\x34\x81\x83\0\x01\0\0\0\0\0\0", 12);
  EXPECT_TRUE(holds_question(head));
  EXPECT_TRUE(holds_question(head + "more"));
  for (size_t size = 0; size < head.size(); ++size) EXPECT_FALSE(holds_question(head.substr(0, size))) << size;
  EXPECT_FALSE(holds_question(std::string("\x12\x34\x81\x83\0\0\0\x01\0\x01\0\x01", 12)));
}

TEST(Ping, CountsHostsThatAnswerAndWaitsForNobodyElse) {
  bool may = false;  // root, or the host's leave to use the kernel's own echo socket
  for (const int type : {SOCK_RAW, SOCK_DGRAM}) {
    const Fd socket{::socket(AF_INET, type, 1)};
    may = may || socket;
  }
  if (!may) GTEST_SKIP() << "nobody lets us send echo requests";
  const auto start = std::chrono::steady_clock::now();

  std::vector<NETHOST> hosts{{"127.0.0.2", 0, 0, 0}, {"127.0.0.3", 0, 0, 0}};
  EXPECT_EQ(ping(hosts), 2);
  EXPECT_EQ(hosts[1].addr, 0x0300007f);
  EXPECT_LT(hosts[1].result, 2000);

  // One that does not resolve is missed, and our own requests are no answers: this waits.
  std::vector<NETHOST> others{{"127.0.0.2", 0, 0, 0}, {"256.0.0.1", 0, 0, 0}, {"127.0.0.1", 0, 0, 0}};
  EXPECT_EQ(ping(others), 1);
  EXPECT_EQ(others[1].addr, 0);
  EXPECT_EQ(others[1].result + others[2].result, 0);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds{2});
}

}  // namespace
}  // namespace ormel::misc
