#include <cstring>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <net/if_arp.h>

#include <gtest/gtest.h>

#include "daemons/networkd/gateway_choice.h"
#include "daemons/networkd/guard.h"
#include "daemons/networkd/interfaces.h"
#include "daemons/networkd/local_networks.h"
#include "daemons/networkd/rtnetlink.h"
#include "daemons/networkd/tunnel_watch.h"
#include "unit/platform/scratch.h"

namespace fenro::networkd {
namespace {

Ipv4Network network(const char* address, const char* mask) {
  std::uint32_t number = 0;
  int length = 0;
  EXPECT_TRUE(parse_ipv4(address, number) && parse_netmask(mask, length)) << address << " " << mask;
  return {number, length};
}

TEST(Ipv4NetworkTest, OverlapsWhenOneAddressIsInBoth) {
  const std::tuple<const char*, const char*, const char*, const char*, bool> CASES[] = {
      {"10.0.0.1", "255.255.255.0", "10.0.0.128", "255.255.255.128", true},  // one within the other
      {"10.0.0.9", "255.255.255.0", "10.0.1.9", "255.255.255.0", false},     // neighbours
      {"10.0.0.255", "255.255.255.255", "10.0.0.0", "255.255.255.0", true},  // the last address
      {"10.0.1.0", "255.255.255.255", "10.0.0.0", "255.255.255.0", false},   // the one behind it
      {"200.0.0.1", "255.255.0.0", "10.0.0.1", "255.255.0.0", false},  // numbers compare unsigned
      {"1.2.3.4", "0.0.0.0", "223.255.255.255", "255.255.255.255", true},  // everything
  };
  for (const auto& [address, mask, other_address, other_mask, overlap] : CASES) {
    const Ipv4Network one = network(address, mask), other = network(other_address, other_mask);
    EXPECT_EQ(one.overlaps(other), overlap) << address << " and " << other_address;
    EXPECT_EQ(other.overlaps(one), overlap) << other_address << " and " << address;
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
  for (const char* own : {"ppp0", "ppp1001", "ppp1032", "ppp1251", "ppp1282", "tun1000", "tun2001",
                          "dtunc2532", "wgc3001", "wg0"})
    EXPECT_TRUE(is_own_tunnel(own)) << own;
  for (const char* foreign : {"eth0", "lo", "ppp", "ppp1000", "ppp1033", "ppp1001x", "ppp-1",
                              "tun0", "tun2033", "wg1", "wgc3000", ""})
    EXPECT_FALSE(is_own_tunnel(foreign)) << foreign;
}

TEST(LocalNetworksTest, CountsBothEndsOfAPointToPointLink) {
  const std::vector<Link> links{{7, "tun5", IFF_UP, true, 0, 0},
                                {8, "wgc3001", IFF_UP, true, 0, 0}};
  const std::vector<Address> addresses{{7, 0x0a090001, 0x0a090102, 32},
                                       {8, 0x0a000001, 0x0a000001, 24}};
  const auto networks = local_networks(links, addresses);
  const auto* near = find_overlap(networks, network("10.9.0.2", "255.255.255.0"));
  const auto* far = find_overlap(networks, network("10.9.1.200", "255.255.255.0"));
  ASSERT_TRUE(near != nullptr && far != nullptr);
  EXPECT_EQ(near->network.text(), "10.9.0.1/32");
  EXPECT_EQ(far->interface, "tun5");
  EXPECT_FALSE(find_overlap(networks, network("10.0.0.0", "255.255.255.0"))) << "a client's own";
}

TEST(InterfacesTest, AreToldApartByWhatTheKernelMadeThemOf) {
  const std::tuple<const char*, const char*, unsigned, int, const char*, bool> rows[] = {
      {"eth12", "", ARPHRD_ETHER, 0, "ethernet", true},
      {"eth12", "", ARPHRD_ETHER, 9, "ethernet", false},
      {"eth0", "veth", ARPHRD_ETHER, 0, "ethernet", true},
      {"br0", "bridge", ARPHRD_ETHER, 0, "vswitch", true},
      {"bond0", "bond", ARPHRD_ETHER, 0, "bond", true},
      {"eth0.7", "vlan", ARPHRD_ETHER, 0, "vlan", true},
      {"tap7", "tun", ARPHRD_ETHER, 0, "virtualif", false},
      {"lo", "", ARPHRD_LOOPBACK, 0, "virtualif", false},
      {"ppp1001", "", ARPHRD_ETHER, 0, "ethernet", false},
      {"x", "bridgex", ARPHRD_ETHER, 0, "virtualif", false},
  };
  for (const auto& [name, kind, hardware, master, type, available] : rows) {
    const Link link{1, name, 0, true, 0, 0, hardware, master, kind, ""};
    EXPECT_EQ(interface_type(link), type) << name << ' ' << kind;
    EXPECT_EQ(is_available(link), available) << name << ' ' << kind;
  }
}

// A message as the kernel builds it, with one attribute after the other.
template <typename Head>
std::vector<std::byte> message(
    const Head& head, const std::vector<std::pair<unsigned short, std::string>>& attributes) {
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
  const auto whole = message(
      head, {{IFLA_IFNAME, std::string{"eth12\0", 6}}, {IFLA_STATS64, std::string(192, '\1')}});
  Link link;
  ASSERT_TRUE(parse_link(whole, link));
  EXPECT_EQ(link.name, "eth12");
  EXPECT_EQ(link.rx_bytes, 0x0101010101010101U);
  // As soon as the name is there; the sanitizers see a step beyond the end.
  for (std::size_t length = 0; length < whole.size(); ++length) {
    const std::vector<std::byte> cut(whole.begin(), whole.begin() + static_cast<long>(length));
    Link partial;
    EXPECT_EQ(parse_link(cut, partial), length >= sizeof head + 10) << length;
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

using enum Health;
using enum Chosen;

// The minute, how the two gateways are, and which is taken.
using Steps = std::vector<std::tuple<int, Health, Health, Chosen>>;

void walk(const GatewayPolicy& policy, const Steps& steps) {
  GatewayChoice choice;
  for (const auto& [minute, first, second, chosen] : steps) {
    const GatewayChoice::Clock::time_point now{std::chrono::minutes(minute)};
    EXPECT_EQ(choice.choose(policy, first, second, now), chosen) << "minute " << minute;
  }
}

TEST(GatewayChoice, ReturnsAfterTheFirstHasBeenWellForTheWholeInterval) {
  // It starts afresh after the silence of minute 6.
  const Steps steps{{0, WELL, WELL, FIRST},    {1, SILENT, WELL, SECOND}, {2, WELL, WELL, SECOND},
                    {6, SILENT, WELL, SECOND}, {7, WELL, WELL, SECOND},   {11, WELL, WELL, SECOND},
                    {12, WELL, WELL, FIRST}};
  walk({"tun2001", "wgc3001", false, std::chrono::minutes(5)}, steps);
}

TEST(GatewayChoice, NeverReturnsUnlessToldOrTheSecondFails) {
  const Steps steps{{0, ABSENT, WELL, SECOND},
                    {1, WELL, WELL, SECOND},
                    {9999, WELL, WELL, SECOND},
                    {10000, WELL, SILENT, FIRST}};
  walk({"tun2001", "wgc3001", false, {}}, steps);
}

TEST(GatewayChoice, StaysInASilentTunnelForWantOfABetterOne) {
  walk({"tun2001", "", false, {}}, {{0, SILENT, WELL, FIRST}, {1, ABSENT, WELL, NONE}});
  const Steps steps{{0, SILENT, SILENT, FIRST},
                    {1, ABSENT, SILENT, SECOND},
                    {2, SILENT, SILENT, SECOND},
                    {3, SILENT, ABSENT, FIRST},
                    {4, ABSENT, ABSENT, NONE}};
  walk({"tun2001", "wgc3001", false, {}}, steps);
  walk({}, {{0, WELL, WELL, NONE}});
}

TEST(TunnelWatch, AsksTheFarEndThatTheAddressTellsOf) {
  constexpr std::uint32_t BASE = 0x0A080000;  // 10.8.0.0
  EXPECT_EQ(far_end({1, BASE + 6, BASE + 5, 32}), BASE + 5);
  EXPECT_EQ(far_end({1, BASE + 6, BASE + 6, 24}), BASE + 1);
  EXPECT_EQ(far_end({1, BASE + 1, BASE + 1, 24}), BASE + 2);
  EXPECT_EQ(far_end({1, BASE + 6, BASE + 6, 32}), BASE + 1);
}

TEST(TunnelWatch, ReadsTheColumnOfAForeignTable) {
  EXPECT_EQ(largest_of("key=\t100\t7\nother=\t90\t8\n", 1), 100U);
  EXPECT_EQ(largest_of("key=\t100\t7\nother=\t90\t8", 2), 8U);
  for (const char* none : {"", "\n", "key=", "key=\t", "key=\t-1\n", "\t\t\t"})
    EXPECT_EQ(largest_of(none, 1), 0U) << none;
}

TEST(Guard, HoldsUnlessItsFileSaysOtherwise) {
  const test::Scratch scratch;
  const std::string file = scratch.path("guard.conf"), pause = scratch.path("paused");
  EXPECT_EQ(read_guard(file.c_str(), pause.c_str()), Guard::OFF);
  for (const auto& [text, guard] : {std::pair{"[guard]\nmode = off\n", Guard::OFF},
                                    {"[guard]\nmode = strict\n", Guard::STRICT},
                                    {"mode = on", Guard::ON},
                                    {"", Guard::ON},
                                    {"mode", Guard::ON},
                                    {"mode = maybe\n", Guard::ON}}) {
    scratch.write("guard.conf", text);
    EXPECT_EQ(read_guard(file.c_str(), pause.c_str()), guard) << text;
  }
  scratch.write("paused", "");
  EXPECT_EQ(read_guard(file.c_str(), pause.c_str()), Guard::OFF);
}

}  // namespace
}  // namespace fenro::networkd
