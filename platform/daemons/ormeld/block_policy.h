// The administrator's policy on failed logins: /etc/config/vpn_block.conf, which the web interface
// writes:
//   {"global": {"enable": true, "limit": 5, "time": 30}}
#pragma once

#include <cstdint>
#include <ctime>
#include <string>

namespace fenro::ormeld {

struct BlockPolicy {
  bool enable = true;
  std::int64_t limit = 5;  // failures that block a user
  std::int64_t time = 30;  // minutes from the last failure on

  // Whether that many failures, the last of them at `last`, reach the limit.
  [[nodiscard]] bool reached(std::int64_t failures) const { return failures >= limit; }
  // Whether a block from that failure on has run out. One from a future that a corrected clock took
  // back has not.
  [[nodiscard]] bool over(std::time_t last, std::time_t now) const {
    return now - last >= time * 60;
  }
};

// Without a file, or a key in it, the defaults hold. False for a file that cannot be read or
// understood: what the administrator wanted is not known then.
[[nodiscard]] bool read_policy(const std::string& path, BlockPolicy& out);

}  // namespace fenro::ormeld
