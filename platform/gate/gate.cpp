#include "gate/gate.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <vector>

#include "base/client_network.h"

namespace fenro::gate {
namespace {

using std::chrono::seconds;

constexpr std::size_t PIECE = std::size_t{64} << 10U;
constexpr std::size_t MEMORY = std::size_t{48}
                               << 20U;  // requests and answers of all clients together
constexpr std::size_t ANSWER =
    std::size_t{16} << 20U;  // buffered of one answer; the program waits while it is full
constexpr std::size_t UNFINISHED_OF_ONE = 64;  // incomplete requests of one client
constexpr std::size_t UNFINISHED = 256;        // and of all
constexpr std::size_t WAITING_OF_ONE =
    128;  // complete requests of one client that wait for a program
constexpr std::size_t WAITING = 512;
constexpr std::size_t CLIENTS = 2000;  // further ones wait in the listener's queue
constexpr seconds HEAD_TIME{10};       // the web server sends all variables at once
constexpr seconds ANSWER_TIME{600};    // the answer to a slower reader is cut off
constexpr seconds REFUSAL_TIME{2};     // for draining what the web server still writes
constexpr seconds NOTE_PERIOD{60};
constexpr int BUSY_RETRY = 5;
constexpr const char* PROFILES = "/etc/config/vpn.conf";
constexpr std::chrono::milliseconds LOOK_PERIOD{
    20};  // for a new version of it, while a request waits for one

constexpr const char* BAD_REQUEST = "400 Bad Request";
constexpr const char* TOO_SLOW = "408 Request Timeout";
constexpr const char* TOO_LARGE = "413 Content Too Large";
constexpr const char* TOO_MANY = "429 Too Many Requests";
constexpr const char* BUSY = "503 Service Unavailable";

bool is_gone(ssize_t count) {
  return count == 0 || (count < 0 && errno != EAGAIN && errno != EINTR);
}

// Returns false when the other end is gone.
bool send_some(int fd, std::string& text) {
  const ssize_t count = send(fd, text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
  if (count < 0) return !is_gone(count);
  text.erase(0, static_cast<std::size_t>(count));
  return true;
}

Fd connect_to(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) return Fd{};
  path.copy(address.sun_path, path.size());
  Fd fd{socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)};
  if (!fd || connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
    return Fd{};
  return fd;
}

}  // namespace

Gate::Gate(Fd listener, Fd stop, std::string programs)
    : listener_(std::move(listener)), stop_(std::move(stop)), programs_(std::move(programs)) {}

int Gate::run() {
  std::vector<pollfd> list;
  for (;;) {
    list.assign(
        {{stop_.get(), POLLIN, 0}, {clients_.size() < CLIENTS ? listener_.get() : -1, POLLIN, 0}});
    const auto now = Clock::now();
    auto next = now + NOTE_PERIOD;
    for (Client& client : clients_) {
      client.polled = list.size();
      const auto writes = [](const std::string& text) {
        return static_cast<short>(text.empty() ? 0 : POLLOUT);
      };
      const bool holds_too_much = client.to_server.size() >= ANSWER || held_ >= MEMORY;
      const auto reads =
          static_cast<short>(holds_too_much && !client.to_server.empty() ? 0 : POLLIN);
      list.push_back(
          {client.server.get(), static_cast<short>(POLLIN | writes(client.to_server)), 0});
      list.push_back(
          {client.program.get(), static_cast<short>(reads | writes(client.to_program)), 0});
      if (client.phase != Phase::Running) next = std::min(next, client.until);
      if (client.phase == Phase::Waiting && client.rule->locks & SAVE)
        next = std::min(next, now + LOOK_PERIOD);
    }
    const auto wait = std::chrono::ceil<std::chrono::milliseconds>(next - now).count();
    if (poll(list.data(), list.size(), static_cast<int>(std::max<long>(wait, 0))) < 0 &&
        errno != EINTR)
      return 1;
    if (list[0].revents != 0) return 0;
    for (Client& client : clients_)
      serve(client, list[client.polled].revents, list[client.polled + 1].revents);
    if (list[1].revents != 0) accept_all();
    limit_memory();
    expire(Clock::now());
    start_all();
    clients_.remove_if([](const Client& client) { return client.phase == Phase::Over; });
  }
}

void Gate::accept_all() {
  for (;;) {
    Fd fd{accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK)};
    if (!fd) return;
    Client& client = clients_.emplace_back();
    client.server = std::move(fd);
    enter(client, Phase::Receiving, HEAD_TIME);
    read_server(client);
  }
}

void Gate::enter(Client& client, Phase phase, seconds time) {
  client.phase = phase;
  client.since = Clock::now();
  client.until = client.since + time;
}

void Gate::serve(Client& client, short server_events, short program_events) {
  if (server_events & (POLLIN | POLLHUP | POLLERR)) read_server(client);
  if (client.program && (program_events & POLLOUT)) write_program(client);
  if (client.program && (program_events & (POLLIN | POLLHUP | POLLERR))) read_program(client);
  if (client.server && !client.to_server.empty()) write_server(client);
}

// After a complete request the web server can only hang up. The program then goes on without it and
// keeps its locks: closing a browser does not undo the work.
void Gate::read_server(Client& client) {
  std::array<char, PIECE> piece;
  const ssize_t count = recv(client.server.get(), piece.data(), piece.size(), MSG_DONTWAIT);
  if (count > 0 && client.phase == Phase::Receiving)
    take(client, {piece.data(), static_cast<std::size_t>(count)});
  if (!is_gone(count)) return;
  client.server.reset();
  client.to_server.clear();
  if (client.phase != Phase::Running) client.phase = Phase::Over;
}

void Gate::take(Client& client, std::string_view bytes) {
  Request& request = client.request;
  request.feed(bytes);
  if (!client.rule && request.state() >= Request::State::Body &&
      request.state() <= Request::State::Whole) {
    client.rule = &rule_of(request.variable("SCRIPT_URL"), request.variable("REQUEST_METHOD"));
    client.address = request.variable("REMOTE_ADDR");
    client.network = client_network(client.address);
    client.until = client.since + client.rule->body_time;
  }
  if (request.state() == Request::State::Malformed)
    return refuse(client, BAD_REQUEST, "The request is malformed.");
  // Records without content count as well, or their headers alone would fill the memory.
  const std::size_t limit = client.rule ? client.rule->body_limit : 0;
  if (request.body_size() > limit || request.size() > limit + 2 * Request::HEAD_LIMIT)
    return refuse(client, TOO_LARGE, "The form is too large.");
  if (request.state() == Request::State::Whole)
    enqueue(client);
  else if (client.rule)
    limit_unfinished(client.network);
}

void Gate::enqueue(Client& client) {
  if (has_too_many_fields(client.request))
    return refuse(client, TOO_LARGE, "The form has too many fields.");
  if (count(Phase::Waiting, &client.network) >= WAITING_OF_ONE ||
      count(Phase::Waiting, nullptr) >= WAITING)
    return refuse(client, TOO_MANY, "Too many requests wait: try again in a moment.", BUSY_RETRY);
  if (client.rule->locks & PROFILE) client.profile = profile_of(client.request);
  enter(client, Phase::Waiting, client.rule->group->patience);
}

void Gate::read_program(Client& client) {
  std::array<char, PIECE> piece;
  const ssize_t count = recv(client.program.get(), piece.data(), piece.size(), MSG_DONTWAIT);
  if (count > 0 && client.server)
    client.to_server.append(piece.data(), static_cast<std::size_t>(count));
  if (!is_gone(count)) return;
  client.program.reset();
  client.to_program.clear();
  if (client.to_server.empty())
    client.phase = Phase::Over;
  else
    enter(client, Phase::Answering, ANSWER_TIME);
}

void Gate::write_server(Client& client) {
  const bool there = send_some(client.server.get(), client.to_server);
  if (!there) client.to_server.clear();
  if (!client.to_server.empty()) return;
  if (client.phase == Phase::Answering) client.phase = Phase::Over;
  if (client.phase == Phase::Refused) shutdown(client.server.get(), SHUT_WR);
}

void Gate::write_program(Client& client) {
  // A program that stops reading may still answer.
  if (!send_some(client.program.get(), client.to_program)) client.to_program.clear();
}

void Gate::refuse(Client& client, const char* status, const char* text, int retry_after) {
  client.to_server = client.request.refusal(status, text, retry_after);
  client.request = Request{};
  enter(client, Phase::Refused, REFUSAL_TIME);
  write_server(client);
}

std::size_t Gate::count(Phase phase, const std::string* network) const {
  return static_cast<std::size_t>(
      std::count_if(clients_.begin(), clients_.end(), [&](const Client& client) {
        return client.phase == phase && (!network || client.network == *network);
      }));
}

int Gate::running(const Group* group, const std::string* network) const {
  return static_cast<int>(
      std::count_if(running_.begin(), running_.end(), [&](const Client* client) {
        return (!group || client->rule->group == group) &&
               (!network || client->network == *network);
      }));
}

bool Gate::may_start(const Client& client) const {
  const Rule& rule = *client.rule;
  if (running(rule.group, nullptr) >= rule.group->at_once) return false;
  if (running(rule.group, &client.network) >= rule.group->of_one_address) return false;
  return std::none_of(running_.begin(), running_.end(), [&](const Client* other) {
    const unsigned both = other->rule->locks & rule.locks;
    return (both & ~(PROFILE | SAVE)) != 0 || ((both & SAVE) != 0 && other->version == version_) ||
           ((both & PROFILE) != 0 && may_be_same(client.profile, other->profile));
  });
}

Gate::Version Gate::current_version() {
  struct stat info {};
  return stat(PROFILES, &info) == 0 ? Version{info.st_ino, info.st_mtim.tv_nsec} : Version{};
}

void Gate::start_all() {
  while (count(Phase::Waiting, nullptr) > 0) {
    version_ = current_version();
    running_.clear();
    for (const Client& client : clients_)
      if (client.phase == Phase::Running) running_.push_back(&client);
    if (running_.size() >= PROGRAMS) return;
    Client* best = nullptr;
    int fewest = PROGRAMS;
    for (Client& client : clients_) {
      if (client.phase != Phase::Waiting) continue;
      const int own = running(nullptr, &client.network);
      if (own >= fewest || !may_start(client)) continue;
      best = &client;
      fewest = own;
    }
    if (!best) return;
    start(*best);
  }
}

void Gate::start(Client& client) {
  client.program = connect_to(programs_);
  if (!client.program) {
    std::fprintf(stderr, "fenro-web-gate: cannot connect to %s: %s\n", programs_.c_str(),
                 std::strerror(errno));
    return refuse(client, BUSY, "The programs cannot be started.", BUSY_RETRY);
  }
  client.version = version_;
  client.to_program = client.request.release();
  enter(client, Phase::Running, seconds{0});
  write_program(client);
}

void Gate::expire(Clock::time_point now) {
  for (Client& client : clients_) {
    if (client.phase == Phase::Running || client.phase == Phase::Over || now < client.until)
      continue;
    switch (client.phase) {
      case Phase::Receiving:
        note(client.address, "incomplete after its time");
        refuse(client, TOO_SLOW, "The request took too long to arrive.");
        break;
      case Phase::Waiting:
        refuse(client, BUSY, "The appliance is busy: try again in a moment.", BUSY_RETRY);
        break;
      default: client.phase = Phase::Over;
    }
  }
}

// The oldest incomplete request makes room for the newest, never the reverse. A client that sends
// its request at once is never among the oldest, whatever others at its address do.
void Gate::limit_unfinished(const std::string& network) {
  std::map<std::string_view, std::size_t> numbers;
  for (const Client& client : clients_)
    if (client.phase == Phase::Receiving && client.rule) ++numbers[client.network];
  std::string_view most = network;
  if (numbers[network] <= UNFINISHED_OF_ONE) {
    if (count(Phase::Receiving, nullptr) <= UNFINISHED) return;
    most = std::max_element(numbers.begin(), numbers.end(), [](const auto& a, const auto& b) {
             return a.second < b.second;
           })->first;
  }
  const auto oldest = std::find_if(clients_.begin(), clients_.end(), [&](const Client& client) {
    return client.phase == Phase::Receiving && client.rule && client.network == most;
  });
  note(oldest->address, "too many incomplete requests");
  refuse(*oldest, TOO_MANY, "Too many requests at once: try again in a moment.", BUSY_RETRY);
}

void Gate::limit_memory() {
  for (;;) {
    held_ = 0;
    for (const Client& client : clients_) held_ += client.held();
    if (held_ <= MEMORY) return;
    std::map<std::string_view, std::size_t> bytes;
    for (const Client& client : clients_)
      if (client.phase != Phase::Running) bytes[client.network] += client.held();
    if (bytes.empty()) return;
    const auto most =
        std::max_element(bytes.begin(), bytes.end(),
                         [](const auto& a, const auto& b) { return a.second < b.second; });
    if (most->second == 0) return;
    const auto oldest = std::find_if(clients_.begin(), clients_.end(), [&](const Client& client) {
      return client.phase != Phase::Running && client.held() > 0 && client.network == most->first;
    });
    note(oldest->address, "too much memory");
    if (oldest->phase == Phase::Receiving || oldest->phase == Phase::Waiting) {
      refuse(*oldest, BUSY, "The appliance is busy: try again in a moment.", BUSY_RETRY);
    } else {
      oldest->to_server.clear();
      oldest->phase = Phase::Over;
    }
  }
}

// At most one line a minute, so that a flood does not fill the journal.
void Gate::note(const std::string& address, const char* what) {
  const auto now = Clock::now();
  if (noted_ != Clock::time_point{} && now - noted_ < NOTE_PERIOD) return;
  noted_ = now;
  std::fprintf(stderr, "fenro-web-gate: ended a request from %s: %s\n", address.c_str(), what);
}

}  // namespace fenro::gate
