// The cloud's services as the appliance's own daemons and tools ask them: which host, and one
// request after the other.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include <curl/curl.h>

#include "base/handle.h"
#include "common/cloud_hosts.h"
#include "common/json.h"

namespace fenro {

struct CloudRequest {
  CloudService service;
  const char* method;
  std::string path;                    // what comes from outside in it has gone through `path_part`
  std::vector<std::string> headers{};  // lines, without their ends
  std::string body{};                  // a JSON text; empty for none
};

struct CloudReply {
  long status = 0;  // of HTTP; 0 without an answer
  Json root{};      // the object that the answer holds, if it does
  [[nodiscard]] bool good() const { return status >= 200 && status <= 299; }
};

// Asks over HTTPS, checks who answers, follows no redirection and waits ten seconds at most. A
// connection stays for the next request. One thread at a time.
class CloudClient {
 public:
  CloudClient() : handle_(curl_easy_init()) {}

  [[nodiscard]] CloudReply ask(const CloudRequest& request) const;
  // Text from outside as one part of a path.
  [[nodiscard]] std::string path_part(const std::string& text) const;

 private:
  std::unique_ptr<CURL, FreeWith<curl_easy_cleanup>> handle_;
};

}  // namespace fenro
