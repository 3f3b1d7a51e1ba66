// The second appliance of a test that runs with "// appliance: --pair": programs run and files in
// there.
#pragma once

#include <arpa/inet.h>
#include <cstdint>
#include <netinet/in.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

#include "ormel/base/handle.h"
#include "support/appliance_host.h"

namespace ormel::test::far {

inline constexpr const char* ADDRESS = "192.168.77.2";
inline constexpr const char* NEAR_ADDRESS = "192.168.77.1";
inline constexpr uint16_t AGENT_PORT = 1977;

inline sockaddr_in agent_address() {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(AGENT_PORT);
  inet_pton(AF_INET, ADDRESS, &address.sin_addr);
  return address;
}

// A message is a list of texts, each after its length; an end that has sent all closes its
// direction.
inline void say(int fd, const std::vector<std::string>& texts) {
  std::string message;
  for (const std::string& text : texts) message += std::to_string(text.size()) + ':' + text;
  for (size_t sent = 0; sent < message.size();) {
    const ssize_t got = send(fd, message.data() + sent, message.size() - sent, MSG_NOSIGNAL);
    if (got <= 0) break;
    sent += static_cast<size_t>(got);
  }
  shutdown(fd, SHUT_WR);
}

inline std::vector<std::string> hear(int fd) {
  std::string message;
  char piece[4096];
  for (ssize_t got = 0; (got = recv(fd, piece, sizeof piece, 0)) > 0;)
    message.append(piece, static_cast<size_t>(got));
  std::vector<std::string> texts;
  for (size_t at = 0, colon = 0; (colon = message.find(':', at)) != std::string::npos;) {
    const size_t length = std::stoul(message.substr(at, colon - at));
    texts.push_back(message.substr(colon + 1, length));
    at = colon + 1 + length;
  }
  return texts;
}

// As test::run(), over there. A status of 126 when the other appliance can't be reached.
inline Result run(const std::vector<std::string>& words,
                  const std::vector<std::string>& environment = {}, const std::string& input = {}) {
  const sockaddr_in address = agent_address();
  Fd fd;
  comes_true(
      [&] {
        fd = Fd{socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)};
        return connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
      },
      30);
  std::vector<std::string> request{std::to_string(words.size()), input};
  request.insert(request.end(), words.begin(), words.end());
  request.insert(request.end(), environment.begin(), environment.end());
  say(fd.get(), request);
  const std::vector<std::string> answer = hear(fd.get());
  if (answer.size() != 3) return {126, "", "no answer from the far appliance"};
  return {std::stoi(answer[0]), answer[1], answer[2]};
}

inline Result cli(std::vector<std::string> options) {
  options.insert(options.begin(), "/usr/sbin/ormel");
  return run(options);
}

inline Result ctl(std::vector<std::string> words) {
  words.insert(words.begin(), "/usr/sbin/ormelctl");
  return run(words);
}

inline std::string begin_session(const char* user) {
  return run({"/usr/lib/fenro/fenro-session", "create", user}).out.substr(0, 8);
}

inline std::string read(const std::string& path) {
  return run({"/usr/bin/cat", path}).out;
}

inline void write(const std::string& path, const std::string& text, mode_t mode = 0600) {
  char octal[8];
  std::snprintf(octal, sizeof octal, "%o", static_cast<unsigned>(mode));
  run({"/bin/sh", "-c", "umask 077; cat >\"$1\" && chmod \"$2\" \"$1\"", "sh", path, octal}, {},
      text);
}

inline std::string conf_value(const std::string& section, const std::string& key) {
  std::string value = run({"/sbin/getcfg", section, key, "-f", VPN_CONF}).out;
  if (!value.empty()) value.pop_back();
  return value;
}

// The processes of both appliances that show one of these lines to others, in their arguments or
// environment.
inline std::string showing(const std::string& secrets) {
  const std::vector<std::string> search{
      "/bin/sh", "-c", "grep -lsaF -f /dev/stdin /proc/[0-9]*/cmdline /proc/[0-9]*/environ"};
  return test::run(search, {"PATH=/usr/bin"}, secrets).out +
         run(search, {"PATH=/usr/bin"}, secrets).out;
}

}  // namespace ormel::test::far
