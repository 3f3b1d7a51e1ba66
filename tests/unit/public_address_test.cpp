// Which texts name a host, and which of them lead here from anywhere.
#include "ormel/host/public_address.h"

#include <gtest/gtest.h>

namespace ormel::system {
namespace {

TEST(PublicAddress, IsANameOrAnAddressWithoutAPort) {
  const std::string longest(253, 'a');
  for (const std::string& text : {std::string("vpn.example.org"), std::string("192.0.2.1"),
                                  std::string("2001:db8::1"), std::string("my_nas"), longest})
    EXPECT_TRUE(is_host(text)) << text;
  for (const std::string& text :
       {std::string(), std::string("vpn.example.org:1194"), std::string("[2001:db8::1]"),
        std::string("a b"), std::string("a\nremote b"), std::string("-x"), std::string("a/b"),
        std::string("a\0b", 3), longest + 'a'})
    EXPECT_FALSE(is_host(text)) << text;
}

TEST(PublicAddress, WorksAtHomeOnlyInAPrivateNetwork) {
  for (const char* host :
       {"10.1.2.3", "172.16.0.1", "172.31.255.255", "192.168.77.1", "100.64.0.1", "169.254.1.1",
        "127.0.0.1", "nas", "nas.local", "NAS.Lan", "fe80::1", "fd00::1", "::1"})
    EXPECT_TRUE(works_at_home_only(host)) << host;
  for (const char* host : {"192.0.2.1", "172.32.0.1", "172.15.0.1", "100.128.0.1", "192.169.0.1",
                           "vpn.example.org", "local.example.org", "2001:db8::1"})
    EXPECT_FALSE(works_at_home_only(host)) << host;
}

}  // namespace
}  // namespace ormel::system
