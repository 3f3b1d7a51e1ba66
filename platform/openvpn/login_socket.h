// The socket at which the attendant of an OpenVPN client daemon lets ormel.cauth answer the
// daemon's question for a login: commands are passed on to the daemon, and its answers come back.
#pragma once

#include <string>
#include <string_view>
#include <utility>

#include "base/handle.h"
#include "openvpn/management.h"

namespace fenro::openvpn {

class LoginSocket {
 public:
  explicit LoginSocket(std::string path) : path_(std::move(path)) {}
  LoginSocket(const LoginSocket&) = delete;
  LoginSocket& operator=(const LoginSocket&) = delete;
  ~LoginSocket();

  // Listens, unless it does already, for our own user alone. False when the file can't be made;
  // errno says why.
  [[nodiscard]] bool offer();

  // To be polled for input, which serve() takes. -1 before offer().
  [[nodiscard]] int fd() const { return client_ ? client_.fd() : listener_.get(); }

  // Greets the next client as the daemon has greeted the attendant, or passes a client's commands
  // on. "quit" ends the client's connection only.
  void serve(Management& daemon);

  // Takes each line of the daemon: its greeting, its question, and its answers to the client.
  void take(std::string_view line);

  // Whether the daemon waits for user and password.
  [[nodiscard]] bool asked() const { return !question_.empty(); }

 private:
  void greet();

  std::string path_;
  Fd listener_{};
  Management client_{};
  std::string greeting_{};
  std::string question_{};
};

}  // namespace fenro::openvpn
