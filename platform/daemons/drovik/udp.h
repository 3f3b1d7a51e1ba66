// The tunnel's UDP socket, many datagrams a system call: the kernel cuts what we send to one end
// from one buffer and hands us what came from one end in one buffer, where it can.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "base/handle.h"
#include "daemons/drovik/ipv4.h"

namespace fenro::drovik {

struct Peer {
  Ipv4 address = 0;
  std::uint16_t port = 0;
  Ipv4 local = 0;  // the address of ours that it spoke to; answers have to come from there

  [[nodiscard]] std::uint64_t key() const { return std::uint64_t{address} << 16 | port; }
};

class UdpSocket {
 public:
  using Take = std::function<void(const Peer& from, std::string_view datagram)>;

  UdpSocket();
  UdpSocket(UdpSocket&&) noexcept;
  UdpSocket& operator=(UdpSocket&&) noexcept;
  ~UdpSocket();

  // Both leave errno when they fail.
  [[nodiscard]] bool listen(std::uint16_t port);
  [[nodiscard]] bool connect(Ipv4 address, std::uint16_t port);

  [[nodiscard]] int fd() const { return fd_.get(); }

  // Hands over what has come, one batch at most. Whether there was any.
  bool receive(const Take& take);

  // Queued until flush(). What the kernel cannot take is lost, as it may be on any way.
  void send(const Peer& to, std::string_view datagram);
  void flush();

 private:
  struct Buffers;
  struct Outgoing {
    Peer to;
    std::size_t offset;
    std::size_t size;
    std::size_t segment;  // size of each datagram in it; the last may be shorter, and ends it
    bool ended;
  };

  [[nodiscard]] bool open();
  [[nodiscard]] bool joins_last(const Peer& to, std::size_t size) const;
  void prepare_receive();
  void prepare_send(std::size_t number);
  void send_singly(const Outgoing& message);

  Fd fd_;
  bool connected_ = false;
  bool segments_ = true;  // whether the kernel cuts for us
  std::unique_ptr<Buffers> buffers_;
  std::vector<Outgoing> queue_{};
};

}  // namespace fenro::drovik
