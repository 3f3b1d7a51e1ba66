// The network interface whose packets the tunnel carries.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "base/handle.h"
#include "daemons/drovik/ipv4.h"

namespace fenro::drovik {

class Tun {
 public:
  // Makes the interface, which lives as long as this object. False leaves errno.
  [[nodiscard]] bool open(const std::string& name);

  [[nodiscard]] bool up(Ipv4 address, Ipv4 peer, std::uint8_t prefix, std::uint16_t mtu) const;
  void down() const;

  [[nodiscard]] int fd() const { return fd_.get(); }
  [[nodiscard]] const std::string& name() const { return name_; }

  // The next packet, in `buffer`; empty when there is none.
  template <std::size_t Size>
  [[nodiscard]] std::string_view read(char (&buffer)[Size]) const {
    const ssize_t got = ::read(fd_.get(), buffer, Size);
    return {buffer, got > 0 ? static_cast<std::size_t>(got) : 0};
  }
  void write(std::string_view packet) const {
    // A full queue loses packets, as any network does.
    if (::write(fd_.get(), packet.data(), packet.size()) < 0) return;
  }

 private:
  Fd fd_;
  std::string name_{};
};

}  // namespace fenro::drovik
