#include <chrono>
#include <csignal>
#include <semaphore>
#include <sys/socket.h>
#include <thread>

#include <fenro/mibservice.h>
#include <gtest/gtest.h>

#include "libmibservice/mibserver.h"
#include "libmibservice/wire.h"
#include "support/wait.h"
#include "unit/platform/scratch.h"

namespace fenro::test {
namespace {

using namespace std::chrono_literals;
using bus::Reply;
using bus::Server;
using Clock = std::chrono::steady_clock;

const std::string SERVICE = "test-" + std::to_string(getpid());

struct Call {
  int status;
  std::string text;  // of the buffer afterwards
};

Call call(const std::string& service, const std::string& method, const std::string& request,
          int timeout = 5) {
  const MibIo io{mib_io_create()};
  mib_io_write(io.get(), request.data(), request.size());
  const int status = mib_call(service.c_str(), method.c_str(), io.get(), timeout, -1);
  return {status, text_of(io.get())};
}

// A connection without any manners.
Fd connect_raw(const std::string& service) {
  const bus::Address address = bus::address_of(service);
  Fd socket{::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)};
  const int rc =
      connect(socket.get(), reinterpret_cast<const sockaddr*>(&address.sun), address.length);
  return rc == 0 ? std::move(socket) : Fd{};
}

std::string receive_all(const Fd& socket) {
  std::string all;
  std::array<char, 4096> chunk{};
  for (ssize_t n = 0; (n = recv(socket.get(), chunk.data(), chunk.size(), 0)) > 0;)
    all.append(chunk.data(), static_cast<std::size_t>(n));
  return all;
}

class BusTest : public testing::Test {
 protected:
  void SetUp() override {
    server.on("echo", [](std::string_view body) { return Reply{MIB_SUCCESS, std::string{body}}; });
    server.on("busy", [](std::string_view) { return Reply{MIB_IS_BUSY, "not seen"}; });
    server.on("throw", [](std::string_view) -> Reply { throw std::runtime_error{"in a handler"}; });
    server.on("huge", [](std::string_view) {
      return Reply{MIB_SUCCESS, std::string(bus::MAX_FRAME, 'x')};
    });
  }
  void TearDown() override {
    if (!thread.joinable()) return;
    server.stop();
    thread.join();
    EXPECT_EQ(result, 0);
  }
  void start() {
    ASSERT_TRUE(server.listen());
    thread = std::thread{[this] { result = server.run(); }};
  }
  Server server{SERVICE};
  std::thread thread;
  int result = -1;
};

TEST_F(BusTest, AnswersAreTheHandlersAndAFailureKeepsTheRequest) {
  start();
  std::string large(5 << 20, '\0');
  for (std::size_t i = 0; i < large.size(); ++i) large[i] = static_cast<char>(i * 7);
  const std::tuple<std::string, std::string, int, std::string> cases[] = {
      {"echo", "hello", MIB_SUCCESS, "hello"},    {"echo", "", MIB_SUCCESS, ""},
      {"echo", large, MIB_SUCCESS, large},        {"busy", "asked", MIB_IS_BUSY, "asked"},
      {"none", "asked", MIB_IS_INVALID, "asked"}, {"throw", "asked", MIB_IO_FAILURE, "asked"},
      {"huge", "asked", MIB_IS_REJECT, "asked"},  {"", "asked", MIB_IS_INVALID, "asked"},
  };
  for (const auto& [method, request, status, text] : cases) {
    const Call answer = call(SERVICE, method, request);
    EXPECT_EQ(answer.status, status) << method;
    EXPECT_TRUE(answer.text == text) << method;
  }
}

TEST_F(BusTest, OnlyOneServesAName) {
  start();
  Server second{SERVICE};
  EXPECT_FALSE(second.listen());
  EXPECT_FALSE(Server{""}.listen());
  EXPECT_FALSE(Server{"@"}.listen());
  EXPECT_FALSE(Server{"@" + std::string(108, 'x')}.listen());
  EXPECT_TRUE(Server{"@" + std::to_string(getpid()) + std::string(90, 'x')}.listen());
}

TEST(BusClient, AnAbsentServiceIsToldAtOnceAndAnUnusableOneToo) {
  const auto start = Clock::now();
  EXPECT_EQ(call("absent", "m", "", 60).status, MIB_NOT_READY);
  EXPECT_EQ(call("@/nobody/here", "m", "", 60).status, MIB_NOT_READY);
  EXPECT_EQ(call(std::string(200, 'x'), "m", "", 60).status, MIB_IS_INVALID);
  EXPECT_EQ(mib_call(nullptr, "m", nullptr, 60, -1), MIB_IS_INVALID);
  EXPECT_LT(Clock::now() - start, 1s);
}

// Plays a service that says `words` to its client, and then hangs up or waits.
Call call_to_a_service_saying(const std::string& words, bool hang_up) {
  const std::string service = "@raw-" + SERVICE;
  const bus::Address address = bus::address_of(service);
  const Fd listener{::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)};
  EXPECT_EQ(bind(listener.get(), reinterpret_cast<const sockaddr*>(&address.sun), address.length),
            0);
  EXPECT_EQ(listen(listener.get(), 1), 0);
  Fd client;
  std::thread peer{[&] {
    client = Fd{accept(listener.get(), nullptr, nullptr)};
    send(client.get(), words.data(), words.size(), MSG_NOSIGNAL);
    if (hang_up) client.reset();
  }};
  Call answer = call(service, "m", "request", 1);
  peer.join();
  return answer;
}

TEST(BusClient, NonsenseAndSilenceFromAServiceAreFailures) {
  const std::string good = bus::reply_frame(MIB_SUCCESS, "fine");
  const std::tuple<std::string, bool, int> cases[] = {
      {good, true, MIB_SUCCESS},
      {good, false, MIB_SUCCESS},
      {good.substr(0, good.size() - 1), true, MIB_IO_FAILURE},
      {good.substr(0, good.size() - 1), false, MIB_TIMEOUT},
      {"", true, MIB_IO_FAILURE},
      {"", false, MIB_TIMEOUT},
      {bus::reply_frame(99, "no such status"), true, MIB_IO_FAILURE},
      {std::string("\x03\0\0\0abc", 7), true, MIB_IO_FAILURE},     // shorter than its own head
      {std::string("\xff\xff\xff\x7f", 4), false, MIB_IS_REJECT},  // larger than any frame
  };
  for (const auto& [words, hang_up, status] : cases) {
    const Call answer = call_to_a_service_saying(words, hang_up);
    EXPECT_EQ(answer.status, status) << testing::PrintToString(words);
    EXPECT_EQ(answer.text, status == MIB_SUCCESS ? "fine" : "request");
  }
}

TEST_F(BusTest, RefusesFramesThatCannotBe) {
  start();
  std::string above;
  bus::put_number(above, bus::MAX_FRAME + 1);
  std::string long_method = bus::request_frame("echo", "");
  long_method[bus::NUMBER] = 9;  // says five bytes more than there are
  const std::pair<std::string, int> cases[] = {
      {above, MIB_IS_REJECT},
      {std::string(4, '\0'), MIB_IS_INVALID},
      {long_method, MIB_IS_INVALID},
      {bus::request_frame("echo", "x") + "more", MIB_IS_INVALID}};
  for (const auto& [bytes, status] : cases) {
    const Fd socket = connect_raw(SERVICE);
    ASSERT_EQ(send(socket.get(), bytes.data(), bytes.size(), 0),
              static_cast<ssize_t>(bytes.size()));
    EXPECT_EQ(receive_all(socket), bus::reply_frame(status, ""));
  }
  // The client does not even send what would be refused.
  EXPECT_EQ(call(SERVICE, "echo", std::string(bus::MAX_FRAME, 'x')).status, MIB_IS_REJECT);
}

TEST_F(BusTest, SilentAndSlowClientsDoNotHoldOthers) {
  start();
  std::vector<Fd> silent;
  for (int i = 0; i < 200; ++i) {  // more than are kept
    silent.push_back(connect_raw(SERVICE));
    ASSERT_EQ(send(silent.back().get(), "\x40", 1, MSG_NOSIGNAL), 1);
  }
  // One that asks for much and takes nothing.
  const Fd greedy = connect_raw(SERVICE);
  const std::string request = bus::request_frame("echo", std::string(4 << 20, 'x'));
  std::thread sender{[&] { send(greedy.get(), request.data(), request.size(), MSG_NOSIGNAL); }};
  const auto begun = Clock::now();
  for (int i = 0; i < 20; ++i) EXPECT_EQ(call(SERVICE, "echo", "quick").status, MIB_SUCCESS);
  EXPECT_LT(Clock::now() - begun, 2s);
  sender.join();
  // It has made room for the later ones.
  EXPECT_EQ(receive_all(silent.front()), bus::reply_frame(MIB_IS_BUSY, ""));
}

TEST_F(BusTest, ASilentClientIsDroppedAtItsDeadlineButNotForAHandlersTime) {
  constexpr auto DEADLINE = 300ms;
  std::binary_semaphore begins{0};
  std::binary_semaphore may_end{0};
  server.set_deadline(DEADLINE);
  server.on("slow", [&](std::string_view) {
    begins.release();
    may_end.acquire();
    return Reply{MIB_SUCCESS, "done"};
  });
  start();
  const std::string frame = bus::request_frame("echo", "late");
  const Fd late = connect_raw(SERVICE);
  send(late.get(), frame.data(), 1, 0);
  const auto begun = Clock::now();
  std::thread other{[] { EXPECT_EQ(call(SERVICE, "slow", "").text, "done"); }};
  begins.acquire();
  std::this_thread::sleep_for(DEADLINE);  // the late client's own is past as well then
  send(late.get(), frame.data() + 1, frame.size() - 1, 0);
  may_end.release();
  EXPECT_EQ(receive_all(late), bus::reply_frame(MIB_SUCCESS, "late"));
  other.join();
  const Fd silent = connect_raw(SERVICE);
  EXPECT_EQ(receive_all(silent), "");
  EXPECT_LT(Clock::now() - begun, 5s);
}

// A server in its own process, of another user if that can be had.
class ServerProcess {
 public:
  ServerProcess(const std::string& service, uid_t user) : pid_(fork()) {
    if (pid_ == 0) _exit(serve(service, user));
    EXPECT_TRUE(
        support::comes_true([&] { return call(service, "who", "").status != MIB_NOT_READY; }));
  }
  ServerProcess(const ServerProcess&) = delete;
  ServerProcess& operator=(const ServerProcess&) = delete;
  ~ServerProcess() {
    if (pid_ > 0) end(SIGKILL);
  }
  int end(int signal) {
    kill(pid_, signal);
    return end_of(std::exchange(pid_, -1));
  }

 private:
  static int serve(const std::string& service, uid_t user) {
    Server server{service};
    server.on("who", [](std::string_view) { return Reply{MIB_SUCCESS, "me"}; });
    if (setresuid(user, user, user) != 0 || !server.listen()) return 2;
    return server.run();
  }
  pid_t pid_;
};

TEST(BusServer, SigtermAndSigintEndItCleanly) {
  for (const int signal : {SIGTERM, SIGINT}) {
    ServerProcess server{"signal-" + SERVICE, getuid()};
    EXPECT_EQ(call("signal-" + SERVICE, "who", "").text, "me");
    EXPECT_EQ(server.end(signal), 0) << signal;
  }
}

int status_as(uid_t user, const std::string& service) {
  const pid_t child = fork();
  if (child == 0) _exit(setresuid(user, user, user) == 0 ? call(service, "who", "").status : 77);
  return end_of(child);
}

TEST(BusServer, EachEndTalksOnlyToRootAndItsOwnUser) {
  constexpr uid_t SOMEONE = 65001;
  constexpr uid_t OTHER = 65002;
  if (getuid() != 0) GTEST_SKIP() << "needs root to act as other users";
  const ServerProcess of_root{"root-" + SERVICE, 0};
  const ServerProcess of_someone{"someone-" + SERVICE, SOMEONE};
  EXPECT_EQ(status_as(SOMEONE, "root-" + SERVICE), MIB_IS_REJECT);  // the server's refusal
  EXPECT_EQ(status_as(SOMEONE, "someone-" + SERVICE), MIB_SUCCESS);
  EXPECT_EQ(status_as(OTHER, "someone-" + SERVICE), MIB_IS_REJECT);
  EXPECT_EQ(status_as(0, "someone-" + SERVICE), MIB_IS_REJECT);  // root takes no stranger's word
  EXPECT_EQ(status_as(0, "root-" + SERVICE), MIB_SUCCESS);
}

TEST(BusServer, TellsTheServiceManagerWhenItIsReady) {
  const std::string name = "@notify-" + SERVICE;
  const bus::Address address = bus::address_of(name);
  const Fd manager{::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
  ASSERT_EQ(bind(manager.get(), reinterpret_cast<const sockaddr*>(&address.sun), address.length),
            0);
  setenv("NOTIFY_SOCKET", name.c_str(), 1);
  const ServerProcess server{"ready-" + SERVICE, getuid()};
  unsetenv("NOTIFY_SOCKET");
  std::array<char, 32> text{};
  EXPECT_EQ(recv(manager.get(), text.data(), text.size(), MSG_DONTWAIT), 7);
  EXPECT_STREQ(text.data(), "READY=1");
}

}  // namespace
}  // namespace fenro::test
