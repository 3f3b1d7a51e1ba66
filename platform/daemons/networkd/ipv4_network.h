// An IPv4 network and when two of them overlap.
// All numbers are in host order, so that they compare as addresses do.
#pragma once

#include <cstdint>
#include <string>

namespace fenro::networkd {

class Ipv4Network {
 public:
  Ipv4Network() = default;
  // The network of `length` bits (0 to 32) around `address`.
  Ipv4Network(std::uint32_t address, int length) noexcept;

  [[nodiscard]] std::uint32_t first() const noexcept { return first_; }
  [[nodiscard]] std::uint32_t last() const noexcept { return first_ | ~mask_; }
  [[nodiscard]] bool overlaps(const Ipv4Network& other) const noexcept {
    return first() <= other.last() && last() >= other.first();
  }
  [[nodiscard]] std::string text() const;  // 192.168.1.0/24

 private:
  std::uint32_t first_ = 0;
  std::uint32_t mask_ = 0;
};

[[nodiscard]] std::string dotted(std::uint32_t address);

// Both take a dotted quad and nothing else. A mask is good if its one bits come first.
[[nodiscard]] bool parse_ipv4(const char* text, std::uint32_t& out);
[[nodiscard]] bool parse_netmask(const char* text, int& length);

}  // namespace fenro::networkd
