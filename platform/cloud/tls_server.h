// A small HTTPS server: a thread for each connection, which may carry several requests; they are answered one by one.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include <openssl/ssl.h>

#include "common/handle.h"

namespace fenro::cloud {

struct HttpRequest {
  std::string method;
  std::string path;                              // without the query
  std::string query;                             // behind "?"
  std::map<std::string, std::string> headers{};  // names in lower case
  std::string body{};
};

struct HttpReply {
  int status = 200;
  std::string body{};
  std::string more_headers{};  // lines, each with its end
  const char* type = "application/json";
  std::size_t padding = 0;            // this many blanks go out behind the body
  std::chrono::milliseconds delay{};  // before it goes out
  bool hang_up = false;               // nothing goes out at all
};

using Handler = std::function<HttpReply(const HttpRequest& request)>;

class TlsServer {
 public:
  // The certificate, with its chain, and its key, in files.
  TlsServer(const std::string& certificate, const std::string& key);

  // False when the address is taken or the certificate cannot be used.
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
