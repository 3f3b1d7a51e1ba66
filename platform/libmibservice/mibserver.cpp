#include "libmibservice/mibserver.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <exception>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <utility>

#include "common/end_signals.h"
#include "libmibservice/notify_ready.h"
#include "libmibservice/wire.h"

namespace fenro::bus {
namespace {

using std::chrono::milliseconds;

constexpr milliseconds DEFAULT_DEADLINE{10'000};
constexpr milliseconds ACCEPT_PAUSE{50};  // when accept runs out of descriptors
constexpr std::size_t MAX_CONNECTIONS = 64;
constexpr int BACKLOG = 128;
constexpr std::size_t CHUNK = std::size_t{64} << 10;

// SIGTERM and SIGINT as a descriptor, for as long as the object lives.
class EndSignals {
 public:
  EndSignals() {
    const sigset_t set = end_signals();
    pthread_sigmask(SIG_BLOCK, &set, &old_);
    fd_ = Fd{signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK)};
  }
  EndSignals(const EndSignals&) = delete;
  EndSignals& operator=(const EndSignals&) = delete;
  ~EndSignals() {
    // Consumes the signal that ended run() first, or it would be delivered when unblocked.
    signalfd_siginfo taken;
    while (fd_ && read(fd_.get(), &taken, sizeof taken) > 0) continue;
    pthread_sigmask(SIG_SETMASK, &old_, nullptr);
  }
  [[nodiscard]] int fd() const { return fd_.get(); }

 private:
  sigset_t old_{};
  Fd fd_;
};

}  // namespace

struct Server::Timer {
  milliseconds period;
  std::function<void()> job;
  Clock::time_point due;
};

struct Server::Connection {
  Fd socket;
  Clock::time_point deadline;
  std::string in{};
  std::string out{};
  std::size_t sent = 0;
  bool answering = false;
  bool finished = false;
};

// One round of poll: the owner of each entry.
struct Server::PollSet {
  std::vector<pollfd> entries{};
  std::vector<int> watched{};          // after the fixed three, in this order
  std::vector<Connection*> clients{};  // after the watched
};

// Time spent in a handler or a job does not count against clients: their deadlines move by it.
class Server::Pause {
 public:
  explicit Pause(Server& server) : server_(server), start_(Clock::now()) {}
  Pause(const Pause&) = delete;
  Pause& operator=(const Pause&) = delete;
  ~Pause() {
    const auto taken = Clock::now() - start_;
    for (Connection& connection : server_.connections_) connection.deadline += taken;
  }

 private:
  Server& server_;
  Clock::time_point start_;
};

Server::Server(std::string service)
    : service_(std::move(service)),
      deadline_(DEFAULT_DEADLINE),
      wake_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

Server::~Server() = default;

void Server::on(std::string method, Handler handler) {
  handlers_[std::move(method)] = std::move(handler);
}

void Server::every(milliseconds period, std::function<void()> job) {
  timers_.push_back({period, std::move(job), Clock::now() + period});
}

void Server::watch(int fd, std::function<void()> ready) {
  watchers_[fd] = std::move(ready);
}

void Server::unwatch(int fd) {
  watchers_.erase(fd);
}

void Server::stop() {
  eventfd_write(wake_.get(), 1);
}

bool Server::listen() {
  const Address address = address_of(service_);
  Fd socket{::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)};
  if (address.length == 0 || !socket || !wake_) return false;
  if (bind(socket.get(), reinterpret_cast<const sockaddr*>(&address.sun), address.length) != 0)
    return false;
  if (::listen(socket.get(), BACKLOG) != 0) return false;
  listener_ = std::move(socket);
  return true;
}

int Server::run() {
  if (!listener_ && !listen()) return 1;
  const EndSignals signals;
  if (signals.fd() < 0) return 1;
  for (Timer& timer : timers_) timer.due = Clock::now() + timer.period;
  notify_ready();
  const int rc = serve(signals.fd());
  connections_.clear();
  return rc;
}

int Server::serve(int signals) {
  for (;;) {
    PollSet set;
    collect(set, signals);
    const int ready = poll(set.entries.data(), set.entries.size(), next_timeout());
    if (ready < 0 && errno != EINTR) return 1;
    if (ready > 0) {
      if (set.entries[0].revents != 0) return 0;
      eventfd_t stopped = 0;
      if (set.entries[1].revents != 0 && eventfd_read(wake_.get(), &stopped) == 0) return 0;
      const std::size_t first = set.entries.size() - set.clients.size();
      for (std::size_t i = 0; i < set.clients.size(); ++i)
        step(*set.clients[i], set.entries[first + i].revents);
      run_watchers(set);
      if (set.entries[2].revents != 0) accept_clients();
    }
    run_timers();
    drop_finished();
  }
}

void Server::collect(PollSet& set, int signals) {
  set.entries = {{signals, POLLIN, 0}, {wake_.get(), POLLIN, 0}, {listener_.get(), POLLIN, 0}};
  for (const auto& [fd, ready] : watchers_) {
    set.entries.push_back({fd, POLLIN, 0});
    set.watched.push_back(fd);
  }
  for (Connection& connection : connections_) {
    set.entries.push_back(
        {connection.socket.get(), static_cast<short>(connection.answering ? POLLOUT : POLLIN), 0});
    set.clients.push_back(&connection);
  }
}

int Server::next_timeout() const {
  auto next = Clock::time_point::max();
  for (const Timer& timer : timers_) next = std::min(next, timer.due);
  for (const Connection& connection : connections_) next = std::min(next, connection.deadline);
  if (next == Clock::time_point::max()) return -1;
  const auto left = std::chrono::ceil<milliseconds>(next - Clock::now()).count();
  return static_cast<int>(std::clamp<milliseconds::rep>(left, 0, INT_MAX));
}

void Server::run_timers() {
  for (Timer& timer : timers_) {
    if (timer.due > Clock::now()) continue;
    const Pause pause{*this};
    timer.job();
    // Counted from now: late jobs do not run in a burst.
    timer.due = Clock::now() + timer.period;
  }
}

void Server::run_watchers(const PollSet& set) {
  for (std::size_t i = 0; i < set.watched.size(); ++i) {
    if (set.entries[3 + i].revents == 0) continue;
    const auto watcher = watchers_.find(set.watched[i]);  // an earlier watcher may have removed it
    if (watcher == watchers_.end()) continue;
    const auto ready = watcher->second;  // a copy: it may remove itself
    const Pause pause{*this};
    ready();
  }
}

void Server::accept_clients() {
  for (int taken = 0; taken < BACKLOG; ++taken) {
    Fd socket{accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK)};
    if (!socket && errno == EINTR) continue;
    if (!socket && (errno == EMFILE || errno == ENFILE))
      poll(nullptr, 0, static_cast<int>(ACCEPT_PAUSE.count()));
    if (!socket) return;
    make_room();
    Connection& connection =
        connections_.emplace_back(Connection{std::move(socket), Clock::now() + deadline_});
    if (!peer_is_trusted(connection.socket.get())) reply(connection, {MIB_IS_REJECT});
  }
}

// Evicts the oldest connection when all slots are taken, so that silent clients cannot shut
// others out.
void Server::make_room() {
  drop_finished();
  if (connections_.size() < MAX_CONNECTIONS) return;
  Connection& oldest = connections_.front();
  if (!oldest.answering) reply(oldest, {MIB_IS_BUSY});
  connections_.pop_front();
}

void Server::step(Connection& connection, short events) {
  if (events == 0) return;
  if (connection.answering) return send(connection);
  receive(connection);
}

// Reads one chunk, so that a client with a large request shares the thread with others.
void Server::receive(Connection& connection) {
  const std::size_t start = connection.in.size();
  connection.in.resize(start + CHUNK);
  const ssize_t n = recv(connection.socket.get(), connection.in.data() + start, CHUNK, 0);
  const bool again = n < 0 && (errno == EAGAIN || errno == EINTR);
  connection.in.resize(start + (n > 0 ? static_cast<std::size_t>(n) : 0));
  if (n > 0) return answer(connection);
  connection.finished = !again;
}

void Server::answer(Connection& connection) {
  const std::string_view in = connection.in;
  if (in.size() < NUMBER) return;
  const std::size_t total = get_number(in.data());
  if (total > MAX_FRAME) return reply(connection, {MIB_IS_REJECT});
  if (total < NUMBER) return reply(connection, {MIB_IS_INVALID});
  if (in.size() < NUMBER + total) return;

  const std::size_t method = get_number(in.data() + NUMBER);
  if (method > total - NUMBER || in.size() > NUMBER + total)
    return reply(connection, {MIB_IS_INVALID});
  reply(connection, call(in.substr(HEAD, method), in.substr(HEAD + method)));
}

Reply Server::call(std::string_view method, std::string_view body) {
  const auto handler = handlers_.find(method);
  if (handler == handlers_.end()) return {MIB_IS_INVALID};
  const Pause pause{*this};
  try {
    Reply reply = handler->second(body);
    if (reply.body.size() > MAX_FRAME - NUMBER) return {MIB_IS_REJECT};
    return reply;
  } catch (const std::exception&) {
    return {MIB_IO_FAILURE};
  }
}

void Server::reply(Connection& connection, const Reply& reply) {
  connection.out = reply_frame(reply.status, reply.body);
  connection.answering = true;
  connection.deadline = Clock::now() + deadline_;
  send(connection);
}

void Server::send(Connection& connection) {
  const std::string_view rest = std::string_view{connection.out}.substr(connection.sent);
  const ssize_t n = ::send(connection.socket.get(), rest.data(), rest.size(), MSG_NOSIGNAL);
  if (n >= 0) connection.sent += static_cast<std::size_t>(n);
  const bool broken = n < 0 && errno != EAGAIN && errno != EINTR;
  connection.finished = broken || connection.sent == connection.out.size();
}

void Server::drop_finished() {
  const auto now = Clock::now();
  connections_.remove_if([now](const Connection& c) { return c.finished || c.deadline <= now; });
}

}  // namespace fenro::bus
