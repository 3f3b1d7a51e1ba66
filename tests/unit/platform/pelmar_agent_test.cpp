#include <arpa/inet.h>
#include <linux/netlink.h>
#include <linux/xfrm.h>

#include <gtest/gtest.h>

#include "daemons/pelmar/link_watch.h"
#include "daemons/pelmar/security_associations.h"
#include "unit/platform/scratch.h"

namespace fenro::pelmar {
namespace {

template <typename T>
std::string bytes_of(const T& value) {
  return {reinterpret_cast<const char*>(&value), sizeof value};
}

// A message of the kernel about one security association, with one attribute.
std::string association(const char* from, const char* to, std::uint16_t kind) {
  xfrm_usersa_info info{};
  info.family = AF_INET;
  info.saddr.a4 = inet_addr(from);
  info.id.daddr.a4 = inet_addr(to);
  const std::string body = bytes_of(info) + bytes_of(nlattr{sizeof(nlattr) + 4, kind}) + "keys";
  nlmsghdr head{};
  head.nlmsg_len = static_cast<std::uint32_t>(sizeof head + body.size());
  head.nlmsg_type = XFRM_MSG_NEWSA;
  return bytes_of(head) + body;
}

TEST(SecurityAssociations, CountOnceTheyHaveKeys) {
  const std::string out = association("10.0.0.1", "192.0.2.1", XFRMA_ALG_AEAD);
  const std::string in = association("192.0.2.1", "10.0.0.1", XFRMA_ALG_CRYPT);
  const std::string larval = association("192.0.2.1", "10.0.0.1", XFRMA_MARK);
  const std::pair<std::string, TunnelState> rows[] = {
      {"", TunnelState::NONE},        {out, TunnelState::HALF},
      {out + in, TunnelState::UP},    {out + larval, TunnelState::HALF},
      {"x" + out, TunnelState::NONE}, {out + in.substr(1), TunnelState::HALF},
  };
  for (const auto& [answer, state] : rows) {
    SecurityAssociations associations;
    std::ignore = take_associations(answer, associations);
    EXPECT_EQ(tunnel_state(associations, "192.0.2.1"), state) << answer.size();
    EXPECT_EQ(tunnel_state(associations, "192.0.2.10"), TunnelState::NONE);
    EXPECT_EQ(tunnel_state(associations, "192.0.2"), TunnelState::NONE);
  }
  // Whatever is missing, nothing is read beyond the end.
  for (std::size_t cut = 0; cut < in.size(); ++cut) {
    SecurityAssociations associations;
    std::ignore = take_associations(std::string_view{in}.substr(0, cut), associations);
    EXPECT_TRUE(associations.empty());
  }
}

TEST(LinkWatch, LosesPatienceWithALinkThatStaysDown) {
  const test::Scratch scratch;
  const std::string file = scratch.path("links");
  {
    LinkWatch watch{file};
    EXPECT_FALSE(watch.report(false, true, 100).cloud);
    EXPECT_FALSE(watch.report(false, false, 100 + LinkWatch::PATIENCE - 1).cloud);
  }
  LinkWatch later{file};  // the daemon was started again
  const LinkWatch::Timeouts timeouts = later.report(false, false, 100 + LinkWatch::PATIENCE);
  EXPECT_TRUE(timeouts.cloud);
  EXPECT_FALSE(timeouts.tunnels);
  EXPECT_FALSE(later.report(true, false, 1000).cloud);
  EXPECT_FALSE(later.report(false, false, 1001).cloud) << "one that was up begins again";
}

}  // namespace
}  // namespace fenro::pelmar
