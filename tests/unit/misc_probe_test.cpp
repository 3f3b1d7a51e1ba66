#include <gtest/gtest.h>

#include "ormel/host/probe_packet.h"

namespace ormel::misc {
namespace {

TEST(EchoRequest, HoldsItsOwnChecksumAndFiller) {
  const ICMP_PACKET request = echo_request(0x1234, 0x01020304);
  const std::string packet{reinterpret_cast<const char*>(&request), sizeof request};
  EXPECT_EQ(packet.substr(0, 2), std::string("\x08\0", 2));
  EXPECT_EQ(packet.substr(4, 9), std::string("\x34\x12\0\0\x04\x03\x02\x01\x08", 9));
  EXPECT_EQ(packet.substr(61), std::string("9:\0", 3));  // 57, 58
  // Every carry: the sum over the packet with its checksum is 0 whatever it holds.
  for (const uint32_t now : {0U, 1U, 0xffffU, 0xffffffffU, 0x7fff8000U})
    for (const uint16_t id : {uint16_t{0}, uint16_t{0xffff}, uint16_t{0x8001}})
      EXPECT_EQ(checksum(echo_request(id, now)), 0) << id << ' ' << now;
}

TEST(NameServerQuery, AsksForTheNameServersOfItsOwnAddress) {
  const std::string head("\x12\x34\x01\0\0\x01\0\0\0\0\0\0", 12);
  const std::string tail("\0\x02\0\x01", 4);
  const std::pair<std::string, std::string> rows[] = {
      {"8.8.4.4", {1, '8', 1, '8', 1, '4', 1, '4', 0}},
      {"1.10.100.9", {1, '1', 2, '1', '0', 3, '1', '0', '0', 1, '9', 0}},
      {"", std::string(2, '\0')},
      {".", std::string(3, '\0')},
      {std::string(1000, 'x'), '\x3f' + std::string(63, 'x') + '\0'},
  };
  for (const auto& [server, name] : rows) {
    SCOPED_TRACE(server);
    const std::string query = name_server_query(0x1234, server);
    EXPECT_EQ(query.substr(0, head.size()), head);
    EXPECT_EQ(query.substr(head.size(), name.size()), name);
    EXPECT_EQ(query.substr(head.size() + name.size()), tail);
    EXPECT_EQ(query.size(), std::min<size_t>(server.size(), 63) + 18);
  }
}

TEST(Answer, CountsWithAQuestionInAWholeHeader) {
  const std::string head("\x12\x34\x81\x83\0\x01\0\0\0\0\0\0", 12);
  EXPECT_TRUE(holds_question(head));
  EXPECT_TRUE(holds_question(head + "more"));
  for (size_t size = 0; size < head.size(); ++size)
    EXPECT_FALSE(holds_question(head.substr(0, size))) << size;
  EXPECT_FALSE(holds_question(std::string("\x12\x34\x81\x83\0\0\0\x01\0\x01\0\x01", 12)));
}

}  // namespace
}  // namespace ormel::misc
