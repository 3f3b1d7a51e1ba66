// The serving half of the service bus, for the daemons of this repository. It has one thread with
// one poll loop; a silent or slow client can lose its own connection only.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <list>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include <fenro/mibservice.h>

#include "base/handle.h"

struct pollfd;

namespace fenro::bus {

// A handler's answer: a MIB_ status, and the body that the caller's buffer holds after
// MIB_SUCCESS.
struct Reply {
  int status = MIB_SUCCESS;
  std::string body{};
};

// A service on the bus. Handlers, jobs and watchers all run sequentially in the thread of run(),
// and may call on(), every(), watch(), unwatch() and stop().
//
//   fenro::bus::Server server{"NetworkService"};
//   server.on("api.list", [&](std::string_view body) { return Reply{MIB_SUCCESS, list(body)}; });
//   return server.listen() ? server.run() : 1;
class Server {
 public:
  using Clock = std::chrono::steady_clock;
  using Handler = std::function<Reply(std::string_view body)>;

  // `service` as mib_call takes it: a registered name, or "@" and the text of an abstract socket.
  explicit Server(std::string service);
  ~Server();
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  // A method without a handler answers MIB_IS_INVALID; a handler that throws, MIB_IO_FAILURE.
  void on(std::string method, Handler handler);

  // Runs `job` every `period`, the first time one period after run() begins or, inside run(), after
  // this call.
  void every(std::chrono::milliseconds period, std::function<void()> job);

  // Runs `ready` whenever `fd` is readable or hung up. The caller keeps ownership of the
  // descriptor.
  void watch(int fd, std::function<void()> ready);
  void unwatch(int fd);

  // Sets how long a client may take to send its request, and again to read its reply. The default
  // is 10 seconds.
  void set_deadline(std::chrono::milliseconds deadline) { deadline_ = deadline; }

  // Binds the service's name. Returns false when the name is in use, empty or too long.
  [[nodiscard]] bool listen();

  // Notifies the service manager that the daemon is ready, then serves until SIGTERM, SIGINT or
  // stop(). Blocks both signals in the calling thread meanwhile (a program started with
  // mib_io_execv does not inherit that). Returns 0 after a clean end, 1 when it could not serve.
  [[nodiscard]] int run();

  // Ends run(). May be called from another thread.
  void stop();

 private:
  struct Connection;
  struct Timer;
  struct PollSet;
  class Pause;

  [[nodiscard]] int serve(int signals);
  [[nodiscard]] int next_timeout() const;
  void collect(PollSet& set, int signals);
  void run_timers();
  void run_watchers(const PollSet& set);
  void accept_clients();
  void make_room();
  void step(Connection& connection, short events);
  void receive(Connection& connection);
  void answer(Connection& connection);
  void send(Connection& connection);
  void reply(Connection& connection, const Reply& reply);
  void drop_finished();
  [[nodiscard]] Reply call(std::string_view method, std::string_view body);

  std::string service_;
  std::chrono::milliseconds deadline_;
  Fd listener_;
  Fd wake_;  // written to by stop()
  std::map<std::string, Handler, std::less<>> handlers_;
  std::list<Timer> timers_;
  std::map<int, std::function<void()>> watchers_;
  std::list<Connection> connections_;  // oldest first
};

}  // namespace fenro::bus
