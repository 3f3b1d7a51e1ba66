#include "cloud/tls_server.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cctype>
#include <csignal>
#include <cstdlib>
#include <sys/socket.h>
#include <sys/time.h>
#include <thread>

namespace fenro::cloud {

namespace {

using Tls = std::unique_ptr<SSL, FreeWith<SSL_free>>;

constexpr std::size_t REQUEST_LIMIT = std::size_t{1} * 1024 * 1024;
constexpr std::size_t PIECE = 16384;
constexpr timeval PATIENCE{5, 0};  // for a silent client
constexpr int BACKLOG = 64;

std::string lower(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return std::tolower(c); });
  return text;
}

// Parses the header lines up to the empty line. Returns false on malformed HTTP.
bool parse_head(const std::string& head, HttpRequest& request) {
  const std::size_t first_end = head.find("\r\n");
  const std::string first = head.substr(0, first_end);
  const std::size_t target = first.find(' ');
  const std::size_t version = first.rfind(' ');
  if (target == std::string::npos || version <= target) return false;
  request.method = first.substr(0, target);
  request.path = first.substr(target + 1, version - target - 1);
  if (const std::size_t mark = request.path.find('?'); mark != std::string::npos) {
    request.query = request.path.substr(mark + 1);
    request.path.resize(mark);
  }
  for (std::size_t at = first_end; at != std::string::npos && at + 2 < head.size();) {
    const std::size_t end = head.find("\r\n", at + 2);
    const std::string line = head.substr(at + 2, end == std::string::npos ? end : end - at - 2);
    const std::size_t colon = line.find(':');
    if (colon != std::string::npos) {
      const std::size_t value = line.find_first_not_of(' ', colon + 1);
      request.headers[lower(line.substr(0, colon))] =
          value == std::string::npos ? "" : line.substr(value);
    }
    at = end;
  }
  return true;
}

// Reads one whole request. Returns false when none arrives or it is too large.
bool read_request(SSL* tls, HttpRequest& request) {
  std::string text;
  std::size_t head_end = std::string::npos;
  std::size_t wanted = 0;
  std::array<char, PIECE> piece;
  while (head_end == std::string::npos || text.size() < wanted) {
    const int got = SSL_read(tls, piece.data(), static_cast<int>(piece.size()));
    if (got <= 0 || text.size() + static_cast<std::size_t>(got) > REQUEST_LIMIT) return false;
    text.append(piece.data(), static_cast<std::size_t>(got));
    if (head_end != std::string::npos) continue;
    head_end = text.find("\r\n\r\n");
    if (head_end == std::string::npos) continue;
    if (!parse_head(text.substr(0, head_end), request)) return false;
    wanted = head_end + 4 + std::strtoul(request.headers["content-length"].c_str(), nullptr, 10);
    if (wanted > REQUEST_LIMIT) return false;
  }
  request.body = text.substr(head_end + 4);
  return true;
}

bool write_all(SSL* tls, const std::string& text) {
  for (std::size_t done = 0; done < text.size();) {
    const int put =
        SSL_write(tls, text.data() + done, static_cast<int>(std::min(PIECE, text.size() - done)));
    if (put <= 0) return false;
    done += static_cast<std::size_t>(put);
  }
  return true;
}

// Returns whether the connection can carry another request.
bool write_reply(SSL* tls, const HttpReply& reply) {
  const std::string head =
      "HTTP/1.1 " + std::to_string(reply.status) + " -\r\nContent-Type: " + reply.type +
      "\r\nContent-Length: " + std::to_string(reply.body.size() + reply.padding) + "\r\n" +
      reply.more_headers + "\r\n";
  if (!write_all(tls, head + reply.body)) return false;
  const std::string blanks(PIECE, ' ');
  for (std::size_t left = reply.padding; left > 0;) {
    const std::size_t length = std::min(left, blanks.size());
    if (!write_all(tls, blanks.substr(0, length))) return false;
    left -= length;
  }
  return true;
}

}  // namespace

TlsServer::TlsServer(const std::string& certificate, const std::string& key)
    : context_(SSL_CTX_new(TLS_server_method())) {
  usable_ = context_ &&
            SSL_CTX_use_certificate_chain_file(context_.get(), certificate.c_str()) == 1 &&
            SSL_CTX_use_PrivateKey_file(context_.get(), key.c_str(), SSL_FILETYPE_PEM) == 1;
}

bool TlsServer::listen(const std::string& address, unsigned short port) {
  socket_ = Fd{socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)};
  const int on = 1;
  setsockopt(socket_.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  sockaddr_in name{};
  name.sin_family = AF_INET;
  name.sin_port = htons(port);
  return usable_ && socket_ && inet_pton(AF_INET, address.c_str(), &name.sin_addr) == 1 &&
         bind(socket_.get(), reinterpret_cast<const sockaddr*>(&name), sizeof name) == 0 &&
         ::listen(socket_.get(), BACKLOG) == 0;
}

void TlsServer::run(const Handler& handler) {
  std::signal(SIGPIPE, SIG_IGN);  // a disconnected client must not end the cloud
  for (;;) {
    const int client = accept4(socket_.get(), nullptr, nullptr, SOCK_CLOEXEC);
    if (client >= 0) std::thread([this, client, &handler] { serve(client, handler); }).detach();
  }
}

void TlsServer::serve(int client, const Handler& handler) {
  const Fd owner{client};
  for (const int direction : {SO_RCVTIMEO, SO_SNDTIMEO}) {
    setsockopt(client, SOL_SOCKET, direction, &PATIENCE, sizeof PATIENCE);
  }
  const Tls tls{SSL_new(context_.get())};
  if (!tls || SSL_set_fd(tls.get(), client) != 1 || SSL_accept(tls.get()) != 1) return;
  for (HttpRequest request; read_request(tls.get(), request); request = {}) {
    HttpReply reply;
    {
      const std::lock_guard lock{answering_};
      reply = handler(request);
    }
    std::this_thread::sleep_for(reply.delay);
    if (reply.hang_up || !write_reply(tls.get(), reply)) return;
  }
}

}  // namespace fenro::cloud
