#include <algorithm>
#include <arpa/inet.h>
#include <cstring>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <vector>

#include <gtest/gtest.h>

#include "daemons/networkd/interfaces.h"
#include "daemons/networkd/local_networks.h"
#include "daemons/networkd/rtnetlink.h"

namespace fenro::networkd {
namespace {

Ipv4Network network(const char* address, const char* mask) {
  std::uint32_t number = 0;
  int length = 0;
  EXPECT_TRUE(parse_ipv4(address, number) && parse_netmask(mask, length)) << address << " " << mask;
  return {number, length};
}

TEST(Ipv4NetworkTest, OverlapsWhenOneAddressIsInBoth) {
  struct Case {
    const char *address, *mask, *other_address, *other_mask;
    bool overlap;
  };
  constexpr Case CASES[] = {
      {"10.0.0.1", "255.255.255.0", "10.0.0.128", "255.255.255.128", true},  // one within the other
      {"10.0.0.9", "255.255.255.0", "10.0.1.9", "255.255.255.0", false},     // neighbours
      {"10.0.0.255", "255.255.255.255", "10.0.0.0", "255.255.255.0", true},  // the last address
      {"10.0.1.0", "255.255.255.255", "10.0.0.0", "255.255.255.0", false},   // the one behind it
      {"200.0.0.1", "255.255.0.0", "10.0.0.1", "255.255.0.0", false},        // numbers compare unsigned
      {"1.2.3.4", "0.0.0.0", "223.255.255.255", "255.255.255.255", true},    // everything
  };
  for (const Case& c : CASES) {
    SCOPED_TRACE(std::string{c.address} + " and " + c.other_address);
    EXPECT_EQ(network(c.address, c.mask).overlaps(network(c.other_address, c.other_mask)), c.overlap);
    EXPECT_EQ(network(c.other_address, c.other_mask).overlaps(network(c.address, c.mask)), c.overlap);
  }
}

TEST(Ipv4NetworkTest, TakesDottedQuadsAndMasksWithoutHolesOnly) {
  std::uint32_t address = 0;
  int length = 0;
  for (const char* bad : {"", "10.0.0", "10.0.0.256", "0x0a.0.0.1", "10.0.0.1 ", "fe80::1"})
    EXPECT_FALSE(parse_ipv4(bad, address)) << bad;
  for (const char* bad : {"255.0.255.0", "0.0.0.255", "255.255.255.1", "24"})
    EXPECT_FALSE(parse_netmask(bad, length)) << bad;
  EXPECT_FALSE(parse_ipv4(nullptr, address));
  EXPECT_TRUE(parse_netmask("255.255.128.0", length));
  EXPECT_EQ(length, 17);
  EXPECT_EQ(network("172.16.77.3", "255.240.0.0").text(), "172.16.0.0/12");
}

TEST(LocalNetworksTest, LeavesOutThisSystemsOwnTunnelsOnly) {
  for (const char* own :
       {"ppp0", "ppp1001", "ppp1032", "ppp1251", "ppp1282", "tun1000", "tun2001", "dtunc2532", "wgc3001", "wg0"})
    EXPECT_TRUE(is_own_tunnel(own)) << own;
  for (const char* foreign :
       {"eth0", "lo", "ppp", "ppp1000", "ppp1033", "ppp1001x", "ppp-1", "tun0", "tun2033", "wg1", "wgc3000", ""})
    EXPECT_FALSE(is_own_tunnel(foreign)) << foreign;
}

TEST(LocalNetworksTest, CountsBothEndsOfAPointToPointLink) {
  const std::vector<Link> links{{7, "tun5", IFF_UP, true, 0, 0}, {8, "wgc3001", IFF_UP, true, 0, 0}};
  const std::vector<Address> addresses{{7, 0x0a090001, 0x0a090102, 32}, {8, 0x0a000001, 0x0a000001, 24}};

  const auto networks = local_networks(links, addresses);

  const auto* near = find_overlap(networks, network("10.9.0.2", "255.255.255.0"));
  const auto* far = find_overlap(networks, network("10.9.1.200", "255.255.255.0"));
  ASSERT_TRUE(near != nullptr && far != nullptr);
  EXPECT_EQ(near->network.text(), "10.9.0.1/32");
  EXPECT_EQ(far->interface, "tun5");
  EXPECT_EQ(find_overlap(networks, network("10.0.0.0", "255.255.255.0")), nullptr);  // the WireGuard client's own
}

TEST(InterfacesTest, AreToldApartByWhatTheKernelMadeThemOf) {
  const struct {
    const char *name, *kind;
    unsigned hardware;
    int master;
    const char* type;
    bool available;
  } rows[] = {
      {"eth12", "", ARPHRD_ETHER, 0, "ethernet", true},     {"eth12", "", ARPHRD_ETHER, 9, "ethernet", false},
      {"eth0", "veth", ARPHRD_ETHER, 0, "ethernet", true},  {"br0", "bridge", ARPHRD_ETHER, 0, "vswitch", true},
      {"bond0", "bond", ARPHRD_ETHER, 0, "bond", true},     {"eth0.7", "vlan", ARPHRD_ETHER, 0, "vlan", true},
      {"tap7", "tun", ARPHRD_ETHER, 0, "virtualif", false}, {"lo", "", ARPHRD_LOOPBACK, 0, "virtualif", false},
      {"ppp1001", "", ARPHRD_ETHER, 0, "ethernet", false},  {"x", "bridgex", ARPHRD_ETHER, 0, "virtualif", false},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(std::string{row.name} + " " + row.kind);
    const Link link{1, row.name, 0, true, 0, 0, row.hardware, row.master, row.kind, ""};
    EXPECT_EQ(interface_type(link), row.type);
    EXPECT_EQ(is_available(link), row.available);
  }
}

TEST(RtnetlinkTest, ListsTheLoopbackInterface) {
  std::vector<Link> links;

  ASSERT_TRUE(list_links(links));

  const auto lo = std::find_if(links.begin(), links.end(), [](const Link& link) { return link.name == "lo"; });
  ASSERT_NE(lo, links.end());
  EXPECT_EQ(lo->index, static_cast<int>(if_nametoindex("lo")));
  EXPECT_NE(lo->flags & IFF_LOOPBACK, 0U);
}

// A message as the kernel builds it, with one attribute after the other.
template <typename Head>
std::vector<std::byte> message(const Head& head,
                               const std::vector<std::pair<unsigned short, std::string>>& attributes) {
  std::vector<std::byte> bytes(sizeof head);
  std::memcpy(bytes.data(), &head, sizeof head);
  for (const auto& [type, value] : attributes) {
    const rtattr attribute{static_cast<unsigned short>(sizeof(rtattr) + value.size()), type};
    const std::size_t at = (bytes.size() + 3) / 4 * 4;
    bytes.resize(at + attribute.rta_len);
    std::memcpy(&bytes[at], &attribute, sizeof attribute);
    std::memcpy(&bytes[at + sizeof attribute], value.data(), value.size());
  }
  return bytes;
}

TEST(RtnetlinkTest, ReadsAMessageCutAnywhereWithoutLeavingIt) {
  ifinfomsg head{};
  head.ifi_index = 3;
  const auto whole = message(head, {{IFLA_IFNAME, std::string{"eth12\0", 6}}, {IFLA_STATS64, std::string(192, '\1')}});
  Link link;
  ASSERT_TRUE(parse_link(whole, link));
  EXPECT_EQ(link.name, "eth12");
  EXPECT_EQ(link.rx_bytes, 0x0101010101010101U);

  for (std::size_t length = 0; length < whole.size(); ++length) {
    const std::vector<std::byte> cut(
        whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length));  // exact: asan sees a step beyond
    Link partial;
    const bool good = parse_link(cut, partial);
    EXPECT_EQ(good, length >= sizeof head + 10) << length;  // as soon as the name is there
    EXPECT_EQ(partial.rx_bytes, 0U);
  }
}

TEST(RtnetlinkTest, RefusesAnAddressOfAnImpossibleLengthOrFamily) {
  Address address;
  ifaddrmsg head{};
  head.ifa_family = AF_INET;
  head.ifa_prefixlen = 24;
  const std::string quad{"\x0a\x01\x02\x03", 4};
  EXPECT_TRUE(parse_address(message(head, {{IFA_LOCAL, quad}}), address));
  EXPECT_EQ(address.network, 0x0a010203U);
  EXPECT_FALSE(parse_address(message(head, {{IFA_LABEL, "eth0"}}), address));
  head.ifa_prefixlen = 33;
  EXPECT_FALSE(parse_address(message(head, {{IFA_LOCAL, quad}}), address));
}

}  // namespace
}  // namespace fenro::networkd
