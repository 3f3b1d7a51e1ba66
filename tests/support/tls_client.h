// A client of the web entry that sends any bytes at any pace, and checks no certificate.
#pragma once

#include <arpa/inet.h>
#include <memory>
#include <netinet/in.h>
#include <string>
#include <sys/socket.h>

#include <openssl/ssl.h>

#include "base/handle.h"

namespace ormel::test {

class TlsClient {
 public:
  explicit TlsClient(const char* from = "127.0.0.1") {
    sockaddr_in own{}, other{};
    own.sin_family = other.sin_family = AF_INET;
    other.sin_port = htons(443);
    inet_pton(AF_INET, from, &own.sin_addr);
    inet_pton(AF_INET, "127.0.0.1", &other.sin_addr);
    const timeval patience{60, 0};
    setsockopt(fd_.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    setsockopt(fd_.get(), SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
    if (bind(fd_.get(), reinterpret_cast<sockaddr*>(&own), sizeof own) != 0) return;
    if (connect(fd_.get(), reinterpret_cast<sockaddr*>(&other), sizeof other) != 0) return;
    SSL_set_fd(tls_.get(), fd_.get());
    open_ = SSL_connect(tls_.get()) == 1;
  }

  // False once the server has ended the connection.
  bool send(const std::string& text) {
    if (!open_ || text.empty()) return open_;
    return open_ = SSL_write(tls_.get(), text.data(), static_cast<int>(text.size())) > 0;
  }
  // What there is until the server ends the connection.
  std::string receive() {
    std::string all;
    char piece[4096];
    for (int count = 1; open_ && count > 0;) {
      count = SSL_read(tls_.get(), piece, sizeof piece);
      if (count > 0) all.append(piece, static_cast<std::size_t>(count));
    }
    open_ = false;
    return all;
  }
  [[nodiscard]] bool is_open() const { return open_; }

 private:
  static SSL_CTX* context() {
    static const std::unique_ptr<SSL_CTX, fenro::FreeWith<SSL_CTX_free>> made{
        SSL_CTX_new(TLS_client_method())};
    return made.get();
  }
  fenro::Fd fd_{socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)};
  std::unique_ptr<SSL, fenro::FreeWith<SSL_free>> tls_{SSL_new(context())};
  bool open_ = false;
};

}  // namespace ormel::test
