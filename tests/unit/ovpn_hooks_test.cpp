#include <algorithm>
#include <cstring>
#include <string>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "ormel/handle.h"
#include "ormel/ovpn.h"
#include "ormel/system_process.h"

namespace ormel::ovpn {
namespace {

// Of no profile, so its credentials are empty; of this process alone, since the socket's folder is everyone's.
const int INDEX = 1'000'000 + getpid();

// Listens where the daemon of a profile does.
class Daemon {
 public:
  Daemon() : path_(management_socket(INDEX)), fd_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path_.copy(address.sun_path, sizeof address.sun_path - 1);
    const timeval patience{10, 0};  // for a client that never comes
    setsockopt(fd_.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    unlink(path_.c_str());
    if (bind(fd_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) listen(fd_.get(), 1);
  }
  Daemon(const Daemon&) = delete;
  Daemon& operator=(const Daemon&) = delete;
  ~Daemon() { unlink(path_.c_str()); }

  // Greets the client and answers all but the last of so many commands; then it just closes. What the client said.
  [[nodiscard]] std::string serve(int commands) const {
    const Fd client{accept(fd_.get(), nullptr, nullptr)};
    std::string heard;
    for (const char* answer : {">INFO:hello\r\n", "SUCCESS: 1\r\n", "SUCCESS: 2\r\n"}) {
      send(client.get(), answer, std::strlen(answer), MSG_NOSIGNAL);
      char command[256];
      const ssize_t got = recv(client.get(), command, sizeof command, 0);
      heard.append(command, static_cast<size_t>(std::max<ssize_t>(got, 0)));
      if (--commands == 0) break;
    }
    return heard;
  }

 private:
  std::string path_;
  Fd fd_;
};

// Starts the hook with these arguments; `serve` runs beside it. Its exit status.
template <typename Serve>
int run_hook(const std::vector<std::string>& arguments, Serve serve) {
  const pid_t pid = fork();
  if (pid == 0) cauth(static_cast<int>(arguments.size()), system::Argv(arguments).get());
  serve();
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(OvpnHook, EscapesQuotesAndBackslashes) {
  EXPECT_EQ(escap(R"(a"b\c)"), R"(a\"b\\c)");
}

TEST(OvpnHook, FailsWithoutAProfileOrItsDaemon) {
  for (const std::string& index : {std::string("0"), std::string("x"), std::to_string(INDEX)}) {
    EXPECT_EQ(run_hook({"ormel.cauth", index}, [] {}), 1) << index;
  }
  EXPECT_EQ(run_hook({"ormel.cauth"}, [] {}), 1);
}

TEST(OvpnHook, AnswersTheDaemonAndAcceptsThatItCloses) {
  const Daemon daemon;
  std::string heard;

  EXPECT_EQ(run_hook({"ormel.cauth", std::to_string(INDEX)}, [&] { heard = daemon.serve(3); }), 0);
  EXPECT_EQ(heard, "username Auth \"\"\npassword Auth \"\"\nquit\n");

  EXPECT_EQ(run_hook({"ormel.cauth", std::to_string(INDEX)}, [&] { heard = daemon.serve(2); }), 1);
}

}  // namespace
}  // namespace ormel::ovpn
