// The gate between a web server and fcgiwrap. It holds each request in memory until it is complete,
// for a bounded time, and only then lets a program start, so a slow or greedy client occupies no
// process. Waiting requests of the address with the fewest running programs start first; requests
// that would overwrite each other's work run one after the other.
#pragma once

#include <chrono>
#include <ctime>
#include <list>
#include <string>
#include <sys/types.h>
#include <utility>
#include <vector>

#include "base/handle.h"
#include "gate/fastcgi.h"
#include "gate/rules.h"

namespace fenro::gate {

class Gate {
 public:
  // `listener` is a listening stream socket, `stop` a descriptor that becomes readable when the
  // gate must end, `programs` the path of fcgiwrap's socket.
  Gate(Fd listener, Fd stop, std::string programs);

  // Serves until `stop` is readable. Returns 0, or 1 on a failure of poll.
  int run();

 private:
  using Clock = std::chrono::steady_clock;
  enum class Phase { Receiving, Waiting, Running, Answering, Refused, Over };

  // Changes whenever the file of the profiles is replaced.
  using Version = std::pair<ino_t, time_t>;

  struct Client {
    Fd server{};   // to the web server; closed when it hangs up, which does not end the program
    Fd program{};  // to fcgiwrap, while the program runs
    Phase phase = Phase::Receiving;
    Clock::time_point since{},
        until{};  // start of the phase, and its time-out; a running program has no time-out
    Request request{};
    std::string address{}, network{};  // `network` identifies one client in all limits
    const Rule* rule = nullptr;
    Profile profile{};
    Version version{};  // of the profiles' file when the program started
    std::string to_program{}, to_server{};
    std::size_t polled = 0;  // index of `server` in the poll list; `program` follows

    [[nodiscard]] std::size_t held() const {
      return request.size() + to_program.size() + to_server.size();
    }
  };

  void accept_all();
  void serve(Client& client, short server_events, short program_events);
  void read_server(Client& client);
  void take(Client& client, std::string_view bytes);
  void enqueue(Client& client);
  void read_program(Client& client);
  void write_server(Client& client);
  void write_program(Client& client);
  void refuse(Client& client, const char* status, const char* text, int retry_after = 0);
  void enter(Client& client, Phase phase, std::chrono::seconds time);
  void start_all();
  [[nodiscard]] static Version current_version();
  [[nodiscard]] bool may_start(const Client& client) const;
  [[nodiscard]] int running(const Group* group,
                            const std::string* network) const;  // null counts all
  void start(Client& client);
  void expire(Clock::time_point now);
  void limit_unfinished(const std::string& network);
  void limit_memory();
  [[nodiscard]] std::size_t count(Phase phase, const std::string* network) const;
  void note(const std::string& address, const char* what);

  Fd listener_, stop_;
  std::string programs_;
  std::list<Client> clients_;           // in order of arrival
  std::vector<const Client*> running_;  // refreshed by start_all
  Version version_{};                   // refreshed by start_all
  std::size_t held_ = 0;                // bytes of all clients, refreshed by limit_memory
  Clock::time_point noted_{};
};

}  // namespace fenro::gate
