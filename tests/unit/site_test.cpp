// The document of the configuration: its schema, and the path of the member that breaks it.
#include "ormelctl/site.h"

#include <gmock/gmock.h>

namespace ormelctl::site {
namespace {

using ormel::Json;

Json parsed(const std::string& text) {
  Json document{json_loads(text.c_str(), 0, nullptr)};
  EXPECT_TRUE(document) << text;
  return document;
}

TEST(SiteSchema, NamesTheMemberThatBreaksIt) {
  // Members beside the format, and what is said of them.
  const std::pair<const char*, const char*> cases[] = {
      {"", ""},
      {R"("servers": {"openvpn": {"maximum": 20, "enable": true}})", ""},
      {R"("servers": {"openvpn": {"maximum": "20"}})", "servers.openvpn.maximum is not a number"},
      {R"("servers": {"openvpn": {"maximun": 20}})",
       "servers.openvpn.maximun is not known; did you mean \"maximum\"?"},
      {R"("servers": {"openvpm": {}})", "servers.openvpm is not known; did you mean \"openvpn\"?"},
      {R"("servers": {"openvpn": {"enc": 3}})", "servers.openvpn.enc is not between 0 and 2"},
      {R"("servers": {"openvpn": {"psk": "a"}})", "servers.openvpn.psk is not known"},
      {R"("servers": {"l2tp": {"psk": {"kept": true}}})", ""},
      {R"("servers": {"l2tp": {"psk": {"file": "/root/psk"}}})", ""},
      {R"("servers": {"l2tp": {"psk": {"kept": false}}})",
       R"(servers.l2tp.psk is not a text, {"file": "PATH"} or {"kept": true})"},
      {R"("profiles": {"a": {}})",
       "profiles.a.protocol is not one of pptp, l2tp, openvpn, drovik, wireguard"},
      {R"("profiles": {"a": 1})", "profiles.a is not an object"},
      {R"("profiles": {"a": {"protocol": "pptp", "endpoint": "b"}})",
       "profiles.a.endpoint is not known"},
      {R"("profiles": {"a": {"protocol": "openvpn", "host": "b"}})",
       "profiles.a.host is not known"},
      {R"("profiles": {"a": {"protocol": "pptp", "host": "b"}})", ""},
      {R"("peers": {"a": {"peer_pub_key": "k"}})", "peers.a.peer_allow_ip is missing"},
      {R"("rights": {"bob": ["pptp", "wireguard"]})",
       "rights.bob[1] is not one of pptp, l2tp, openvpn, drovik"},
      {R"("access": {"bob": {"until": {"openvpn": 1924992000}, "devices": 2}})", ""},
      {R"("access": {"bob": {"until": {"openvpn": 0}, "devices": 2}})",
       "access.bob.until.openvpn is not between 1 and 253402300799"},
      {R"("access": {"bob": {"devices": 2}})", "access.bob.until is missing"},
      {R"("block": {"time": 31})", "block.time is not one of 30, 60, 720, 1440"},
      {R"("gateway": {"on": 1})", "gateway.on is not true or false"},
      {R"("guard": {"mode": "maybe"})", "guard.mode is not one of off, on, strict"},
      {R"("notifications": {"ops": {"events": "failed"}})", "notifications.ops.url is missing"},
      {R"("servers": [])", "servers is not an object"},
  };
  for (const auto& [members, wrong] : cases) {
    const std::string comma = *members ? ", " : "";
    const Json document = parsed("{\"format\": 1" + comma + members + '}');
    EXPECT_EQ(broken_rule(document.get()), wrong);
  }
  EXPECT_EQ(broken_rule(parsed("{}").get()), "format is missing");
  EXPECT_EQ(broken_rule(parsed(R"({"format": 2})").get()), "format is not between 1 and 1");
  EXPECT_EQ(broken_rule(parsed("[]").get()), "the document is not an object");
}

// Each member has an option that a form or the command line takes, and none comes twice.
TEST(SiteSchema, HasTheOptionsOfEachRecord) {
  const Json rules = schema();
  const json_t* const servers = json_object_get(
      json_object_get(json_object_get(rules.get(), "properties"), "servers"), "properties");
  for (const Protocol& protocol : protocols()) {
    for (const ormel::TYPE type : {protocol.server, protocol.client}) {
      std::set<std::string> names;
      for (const Member& member : members_of(type))
        EXPECT_TRUE(names.insert(member.name).second) << protocol.name << ' ' << member.name;
      EXPECT_GE(names.size(), 7U) << protocol.name;
    }
    const json_t* const own =
        json_object_get(json_object_get(servers, protocol.name.c_str()), "properties");
    EXPECT_EQ(json_object_size(own), members_of(protocol.server).size() + 1) << protocol.name;
  }
}

TEST(SiteSecrets, AreFoundWhereTheSchemaHasThem) {
  const Json document = parsed(R"({"servers": {"l2tp": {"psk": "a", "port": 1}},
    "profiles": {"x": {"protocol": "wireguard", "client_pri_key": "b", "psk": {"kept": true}},
                 "y": {"protocol": "openvpn", "config": "c", "pass": {"file": "d"}}},
    "peers": {"p": {"psk": "e"}}, "notifications": {"n": {"url": "u", "secret": "f"}}})");
  std::vector<std::string> found;
  for_each_secret(document.get(), [&](json_t* object, const Path& path) {
    found.push_back(path[1] + '.' + path.back());
    EXPECT_TRUE(json_object_get(object, path.back().c_str()));
  });
  EXPECT_THAT(found,
              testing::UnorderedElementsAre("l2tp.psk", "x.client_pri_key", "x.psk", "y.config",
                                            "y.pass", "p.psk", "n.url", "n.secret"));
}

}  // namespace
}  // namespace ormelctl::site
