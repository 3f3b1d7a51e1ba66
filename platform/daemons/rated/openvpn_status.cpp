#include "daemons/rated/openvpn_status.h"

#include <array>
#include <netinet/in.h>
#include <optional>
#include <poll.h>
#include <string>
#include <sys/socket.h>

#include "base/handle.h"
#include "base/lines.h"

namespace fenro::rated {
namespace {

using Clock = std::chrono::steady_clock;

// Version 3 separates its columns by tabs, which a client's name cannot contain. The daemon drops
// unsent output when it reads "quit", so the connection is just closed.
constexpr std::string_view QUESTION = "status 3\n";
constexpr std::string_view LAST_LINE = "\nEND\r\n";
constexpr char SEPARATOR = '\t';
constexpr std::string_view CLIENT = "CLIENT_LIST";
enum Column : std::size_t { KIND, NAME, REAL_ADDRESS, ADDRESS, ADDRESS6, RECEIVED, SENT, COLUMNS };

constexpr std::size_t ANSWER_LIMIT = std::size_t{4} * 1024 * 1024;  // about 20,000 clients

bool wait_for(int fd, short events, Clock::time_point deadline) {
  const auto left =
      std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
  pollfd entry{fd, events, 0};
  return left > 0 && poll(&entry, 1, static_cast<int>(left)) == 1;
}

Fd connect_to(std::uint16_t port, Clock::time_point deadline) {
  Fd fd{socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)};
  sockaddr_in place{};
  place.sin_family = AF_INET;
  place.sin_port = htons(port);
  place.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (!fd) return fd;
  // A failed connect shows when the command is sent.
  std::ignore = connect(fd.get(), reinterpret_cast<const sockaddr*>(&place), sizeof place);
  if (!wait_for(fd.get(), POLLOUT, deadline)) fd.reset();
  return fd;
}

std::string read_answer(const Fd& fd, Clock::time_point deadline) {
  std::string answer;
  std::array<char, 16384> piece;
  while (answer.size() < ANSWER_LIMIT && !answer.ends_with(LAST_LINE) &&
         wait_for(fd.get(), POLLIN, deadline)) {
    const ssize_t length = recv(fd.get(), piece.data(), piece.size(), 0);
    if (length <= 0) break;
    answer.append(piece.data(), static_cast<std::size_t>(length));
  }
  return answer;
}

std::optional<Counters> parse_client(std::string_view line) {
  if (line.ends_with('\r')) line.remove_suffix(1);
  std::array<std::string_view, COLUMNS> columns;
  for (std::string_view& column : columns) column = take_until(line, SEPARATOR);
  Counters client;
  client.key = columns[REAL_ADDRESS];
  if (columns[KIND] != CLIENT || client.key.empty()) return {};
  if (!parse_number(columns[RECEIVED], client.rx_bytes) ||
      !parse_number(columns[SENT], client.tx_bytes))
    return {};
  return client;
}

}  // namespace

std::vector<Counters> parse_status(std::string_view text) {
  std::vector<Counters> clients;
  // An unterminated last line may lack digits of its last number.
  for (std::size_t end = 0; (end = text.find('\n')) != std::string_view::npos;
       text.remove_prefix(end + 1)) {
    if (auto client = parse_client(text.substr(0, end))) clients.push_back(std::move(*client));
  }
  return clients;
}

std::vector<Counters> openvpn_clients(std::uint16_t port, std::chrono::milliseconds patience) {
  const Clock::time_point deadline = Clock::now() + patience;
  const Fd fd = connect_to(port, deadline);
  if (!fd) return {};
  const auto length = static_cast<ssize_t>(QUESTION.size());
  if (send(fd.get(), QUESTION.data(), QUESTION.size(), MSG_NOSIGNAL) != length) return {};
  return parse_status(read_answer(fd, deadline));
}

}  // namespace fenro::rated
