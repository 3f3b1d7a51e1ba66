// Web requests to the program: as a web server starts it, and through the real web server.
#pragma once

#include <cstdlib>
#include <string>
#include <vector>

#include "ormel/base/json.h"
#include "support/appliance_host.h"

namespace ormel::test {

using Environment = std::vector<std::string>;

inline constexpr const char* CGI = "/usr/sbin/ormel.cgi";
inline constexpr const char* SHOW = "/ormel/config/show";
inline constexpr const char* MULTIPART = "CONTENT_TYPE=multipart/form-data; boundary=edge";

struct WebReply {
  int status;  // of the program that answered: the code of the answer
  std::string head;
  std::string body;
};

inline WebReply split_reply(const Result& result) {
  const size_t end = result.out.find("\r\n\r\n");
  if (end == std::string::npos) return {result.status, "", result.out};
  return {result.status, result.out.substr(0, end), result.out.substr(end + 4)};
}

// The envelope of a failure.
inline std::string refusal(int code, const std::string& reason) {
  return "{\"error\":" + std::to_string(code) + ",\"reason\":\"" + reason + "\"}";
}

inline WebReply cgi(const std::string& route, const std::string& query,
                    const Environment& more = {}, const std::string& body = {}) {
  Environment environment{"SCRIPT_URL=" + route, "QUERY_STRING=" + query};
  environment.insert(environment.end(), more.begin(), more.end());
  return split_reply(run({CGI}, environment, body));
}

// Runs a handler that no route leads to as its own request.
inline WebReply unrouted(int (*handler)(ormel::JsonValue&), const std::string& query) {
  return split_reply(in_child([&] {
    clearenv();
    setenv("QUERY_STRING", query.c_str(), 1);
    ormel::JsonValue response;
    const int code = handler(response);
    std::fflush(stdout);
    return code;
  }));
}

inline WebReply https(const std::string& route, std::vector<std::string> options = {}) {
  options.insert(options.begin(), {"/usr/bin/curl", "-ksSi", "-H", "Expect:", "--max-time", "60",
                                   "https://localhost" + route});
  return split_reply(run(options));
}

// Runs a command for its output. Not run(): several threads may do this at once.
inline Result piped(const std::string& command) {
  Result result{-1, "", ""};
  std::FILE* const pipe = popen(command.c_str(), "r");
  for (int c = std::getc(pipe); c != EOF; c = std::getc(pipe)) result.out += static_cast<char>(c);
  if (const int status = pclose(pipe); WIFEXITED(status)) result.status = WEXITSTATUS(status);
  return result;
}

// One part of a body with the boundary "edge": a field, or an upload.
inline std::string part(const std::string& name, const std::string& data,
                        const std::string& file = {}) {
  const std::string filename = file.empty() ? "" : "; filename=\"" + file + '"';
  return "--edge\r\nContent-Disposition: form-data; name=\"" + name + '"' + filename + "\r\n\r\n" +
         data + "\r\n";
}

// How often a text holds a word.
inline size_t occurrences(const std::string& text, const std::string& word) {
  size_t count = 0;
  for (size_t at = 0; (at = text.find(word, at)) != std::string::npos; ++at) ++count;
  return count;
}

// The temporary files of uploads that are there now.
inline size_t uploads() {
  size_t count = 0;
  for (const auto& file : fs::directory_iterator("/tmp"))
    count += file.path().filename().string().starts_with("cgi-");
  return count;
}

inline std::string pptp_client(int index, const std::string& more = {}) {
  const std::string number = std::to_string(index);
  return "[PPTP_CLIENT" + number + "]\nIndex = " + number + "\nProfile File = office" + number +
         "\nName = bob\nAccessCode = cDE=\nServer Address = 127.0.0.1\n" + more + "\n";
}

// A host with one profile that is off, and the sessions of an administrator and of a general user.
class WebHost : public ProfileHost {
 protected:
  void SetUp() override {
    ProfileHost::SetUp();
    write(VPN_CONF, pptp_client(1));
    admin = "sid=" + begin_session("admin");
    guest = "sid=" + begin_session("guest");
  }

  std::string admin;
  std::string guest;
};

}  // namespace ormel::test
