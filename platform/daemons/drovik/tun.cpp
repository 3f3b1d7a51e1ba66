#include "daemons/drovik/tun.h"

#include <fcntl.h>
#include <linux/if_tun.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

namespace fenro::drovik {
namespace {

constexpr const char* CLONE_DEVICE = "/dev/net/tun";
constexpr int QUEUE_LENGTH =
    2000;  // bursts of several clients, while the processor is with one of them

// Requests about one interface, of which the first that fails ends the rest.
class Requests {
 public:
  explicit Requests(const std::string& name) : fd_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    name.copy(request_.ifr_name, sizeof request_.ifr_name - 1);
  }
  Requests& address(unsigned long what, Ipv4 address) {
    sockaddr_in name{};
    name.sin_family = AF_INET;
    name.sin_addr.s_addr = htonl(address);
    request_.ifr_addr = reinterpret_cast<const sockaddr&>(name);
    return ask(what);
  }
  Requests& number(unsigned long what, int number) {
    request_.ifr_ifru.ifru_ivalue = number;
    return ask(what);
  }
  Requests& flags(short set, short clear) {
    ask(SIOCGIFFLAGS);
    request_.ifr_flags = static_cast<short>((request_.ifr_flags | set) & ~clear);
    return ask(SIOCSIFFLAGS);
  }
  [[nodiscard]] bool done() const { return good_; }

 private:
  Requests& ask(unsigned long what) {
    good_ = good_ && ioctl(fd_.get(), what, &request_) == 0;
    return *this;
  }
  Fd fd_;
  ifreq request_{};
  bool good_ = true;
};

Ipv4 mask_of(std::uint8_t prefix) {
  return prefix == 0 ? 0 : ~Ipv4{0} << (32 - prefix);
}

}  // namespace

bool Tun::open(const std::string& name) {
  Fd fd{::open(CLONE_DEVICE, O_RDWR | O_CLOEXEC | O_NONBLOCK)};
  ifreq request{};
  name.copy(request.ifr_name, sizeof request.ifr_name - 1);
  request.ifr_flags = IFF_TUN | IFF_NO_PI;
  if (!fd || ioctl(fd.get(), TUNSETIFF, &request) != 0) return false;
  fd_ = std::move(fd);
  name_ = request.ifr_name;
  return true;
}

bool Tun::up(Ipv4 address, Ipv4 peer, std::uint8_t prefix, std::uint16_t mtu) const {
  return Requests{name_}
      .address(SIOCSIFADDR, address)
      .address(SIOCSIFDSTADDR, peer)
      .address(SIOCSIFNETMASK, mask_of(prefix))
      .number(SIOCSIFMTU, mtu)
      .number(SIOCSIFTXQLEN, QUEUE_LENGTH)
      .flags(IFF_UP, 0)
      .done();
}

void Tun::down() const {
  Requests{name_}.flags(0, IFF_UP).address(SIOCSIFADDR, INADDR_ANY);
}

}  // namespace fenro::drovik
