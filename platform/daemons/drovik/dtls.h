// DTLS 1.2 with a pre-shared key, by OpenSSL: one Dtls for all connections with one key, one
// Channel for each.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include <openssl/ssl.h>

#include "base/handle.h"
#include "daemons/drovik/udp.h"

namespace fenro::drovik {

class Channel;

class Dtls {
 public:
  enum class Side { Server, Client };
  using Key = std::array<unsigned char, 32>;

  // Null when the library refuses, or the text is empty.
  [[nodiscard]] static std::unique_ptr<Dtls> create(Side side, std::string_view psk);

  Dtls(const Dtls&) = delete;
  Dtls& operator=(const Dtls&) = delete;
  ~Dtls();

  [[nodiscard]] SSL_CTX* context() const { return context_.get(); }
  [[nodiscard]] Side side() const { return side_; }
  [[nodiscard]] const Key& key() const { return key_; }

  // What a client that is at `peer` must show, in the given minute.
  [[nodiscard]] bool cookie(const Peer& peer, std::int64_t minute, Key& out) const;

 private:
  explicit Dtls(Side side) : side_(side) {}
  [[nodiscard]] bool prepare(std::string_view psk);

  Side side_;
  std::unique_ptr<SSL_CTX, FreeWith<SSL_CTX_free>> context_{};
  Key key_{};
  Key cookie_secret_{};
};

// One end of one connection. It never waits and touches no socket: datagrams come by receive() and
// go to `post`.
class Channel {
 public:
  using Post = std::function<void(const Peer& to, std::string_view datagram)>;
  using Deliver = std::function<void(std::string_view message)>;
  enum class State { Shaking, Open, Ended };

  Channel(const Dtls& dtls, Post post);
  Channel(const Channel&) = delete;
  Channel& operator=(const Channel&) = delete;

  // On a server, before anything else: a datagram of a stranger. True once it has shown the cookie
  // that was sent to its address; until then nothing is kept of it. The channel is that peer's from
  // then on.
  [[nodiscard]] bool listen(const Peer& from, std::string_view datagram);

  // On a client: the first step.
  void begin();

  void receive(std::string_view datagram, const Deliver& deliver);
  void send(std::string_view message);

  // Sends again what was not answered in time; to be called several times a second while shaking
  // hands.
  void tick();

  // Tells the other end, once.
  void end();

  [[nodiscard]] State state() const { return state_; }
  // On a client: the handshake is done but for the server's proof that it has the same key.
  [[nodiscard]] bool awaits_proof() const;
  [[nodiscard]] const Peer& peer() const { return peer_; }
  [[nodiscard]] std::uint64_t records() const {
    return records_;
  }  // that the keys have protected, both ways

  // For the library's side of it.
  [[nodiscard]] int give(char* buffer, int size);
  void take(std::string_view datagram) { post_(peer_, datagram); }
  void set_peek(bool peek) { peek_ = peek; }
  [[nodiscard]] const Dtls& dtls() const { return dtls_; }

 private:
  void shake();
  void judge(int result);

  const Dtls& dtls_;
  Post post_;
  Peer peer_{};
  std::string_view in_{};  // the datagram at hand
  bool peek_ = false;
  State state_ = State::Shaking;
  std::uint64_t records_ = 0;
  std::unique_ptr<SSL, FreeWith<SSL_free>> ssl_;
};

}  // namespace fenro::drovik
