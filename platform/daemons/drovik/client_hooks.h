// The programs that keep a profile's keys in vpn.conf, its routing table and the connection log.
#pragma once

#include <string>

#include "daemons/drovik/client.h"
#include "daemons/drovik/workers.h"

namespace fenro::drovik {

class ClientHooks : public Edges {
 public:
  // The signals that are to end the daemon must be blocked by then.
  ClientHooks(std::string section, std::string interface)
      : section_(std::move(section)), interface_(std::move(interface)) {}

  void up(const Welcome& welcome, Ipv4 server) override;
  void down(Traffic traffic) override;
  void failed(const char* code, const char* detail) override;
  void heard() override;

 private:
  std::string section_;
  std::string interface_;
  Workers runner_{1};  // one after the other; done with all before this object is
};

}  // namespace fenro::drovik
