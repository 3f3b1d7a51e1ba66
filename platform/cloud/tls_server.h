// A small HTTPS server with one thread for each connection. A connection may carry several
// requests, answered in order.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include <openssl/ssl.h>

#include "base/handle.h"

namespace fenro::cloud {

struct HttpRequest {
  std::string method;
  std::string path;                              // without the query
  std::string query;                             // after "?"
  std::map<std::string, std::string> headers{};  // names in lower case
  std::string body{};
};

struct HttpReply {
  int status = 200;
  std::string body{};
  std::string more_headers{};  // lines, each with its end
  const char* type = "application/json";
  std::size_t padding = 0;            // number of blanks sent after the body
  std::chrono::milliseconds delay{};  // before the answer is sent
  bool hang_up = false;               // close without an answer
};

using Handler = std::function<HttpReply(const HttpRequest& request)>;

class TlsServer {
 public:
  // Paths of the certificate with its chain, and of its key.
  TlsServer(const std::string& certificate, const std::string& key);

  // Returns false when the address is in use or the certificate is unusable.
  [[nodiscard]] bool listen(const std::string& address, unsigned short port);
  // Serves until the process ends.
  [[noreturn]] void run(const Handler& handler);

 private:
  void serve(int client, const Handler& handler);

  std::unique_ptr<SSL_CTX, FreeWith<SSL_CTX_free>> context_;
  Fd socket_;
  bool usable_ = false;
  std::mutex answering_;
};

}  // namespace fenro::cloud
