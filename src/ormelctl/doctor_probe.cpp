// What the doctor sends to servers and runs for a limited time.
#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "ormel/base/address.h"
#include "ormel/host/process.h"
#include "ormelctl/doctor.h"

namespace ormelctl {

namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t LARGEST_OUTPUT = size_t{1} << 20U;
constexpr auto END_TIME = std::chrono::seconds(2);  // that a program may take to end after SIGTERM

// Big-endian numbers.
std::string number(unsigned long value, size_t bytes) {
  std::string out;
  for (size_t at = bytes; at-- > 0;) out += static_cast<char>(value >> (8 * at));
  return out;
}

int left(Clock::time_point end) {
  return static_cast<int>(std::max<long>(
      std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count(), 0));
}

bool wait_for(int fd, short events, Clock::time_point end) {
  pollfd ready{fd, events, 0};
  int rc = 0;
  do {
    rc = poll(&ready, 1, left(end));
  } while (rc == 0 ? Clock::now() < end : rc < 0 && errno == EINTR);
  return rc == 1;
}

// The exit status of a child, which is ended after `patience`; -1 for none.
int reap(pid_t child, Clock::time_point patience) {
  int status = 0;
  const auto ends_until = [&](Clock::time_point end) {
    while (waitpid(child, &status, WNOHANG) == 0) {
      if (Clock::now() >= end) return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
  };
  if (!ends_until(patience)) {
    kill(child, SIGTERM);
    if (!ends_until(Clock::now() + END_TIME)) {
      kill(child, SIGKILL);
      waitpid(child, &status, 0);
    }
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

[[noreturn]] void become(const std::vector<std::string>& command, int in, int out) {
  const ormel::system::Argv argv(command);
  char path[] = "PATH=/usr/sbin:/usr/bin:/sbin:/bin";
  char locale[] = "LC_ALL=C";
  char* environment[] = {path, locale, nullptr};
  if (dup2(in, STDIN_FILENO) >= 0 && dup2(out, STDOUT_FILENO) >= 0 && dup2(out, STDERR_FILENO) >= 0)
    execve(command[0].c_str(), argv.get(), environment);
  _exit(127);
}

}  // namespace

int Deadline::seconds(int most) const {
  const auto rest = std::chrono::duration_cast<std::chrono::seconds>(end_ - Clock::now()).count();
  return static_cast<int>(std::clamp<long>(rest, 1, most));
}

LimitedRun run_limited(const std::vector<std::string>& command, const std::string& input,
                       int seconds, const std::function<bool(const std::string& line)>& enough) {
  LimitedRun run;
  const auto end = Clock::now() + std::chrono::seconds(seconds);
  // The input may hold a secret and is in no file; a pipe would block on a long one.
  const ormel::Fd in{memfd_create("input", MFD_CLOEXEC)};
  int ends[2] = {-1, -1};
  if (!in || write(in.get(), input.data(), input.size()) != static_cast<ssize_t>(input.size()) ||
      lseek(in.get(), 0, SEEK_SET) != 0 || pipe2(ends, O_CLOEXEC) != 0)
    return run;
  const ormel::Fd output{ends[0]};
  ormel::Fd inner{ends[1]};
  const pid_t child = fork();
  if (child == 0) become(command, in.get(), inner.get());
  inner = ormel::Fd{};
  if (child < 0) return run;
  bool done = false, closed = false;
  size_t line_start = 0;
  while (!done && run.out.size() < LARGEST_OUTPUT && wait_for(output.get(), POLLIN, end)) {
    char piece[4096];
    const ssize_t got = read(output.get(), piece, sizeof piece);
    closed = got <= 0;
    if (closed) break;
    run.out.append(piece, static_cast<size_t>(got));
    for (size_t line_end = 0;
         !done && (line_end = run.out.find('\n', line_start)) != std::string::npos;) {
      done = enough && enough(run.out.substr(line_start, line_end - line_start));
      line_start = line_end + 1;
    }
  }
  run.in_time = done || closed;
  run.status = reap(child, closed ? end : Clock::now());
  return run;
}

std::string ask_server(const std::string& address, int port, bool tcp, const std::string& request,
                       int seconds) {
  const auto end = Clock::now() + std::chrono::seconds(seconds);
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_port = htons(static_cast<uint16_t>(port));
  if (!ormel::system::parse_address(address, to.sin_addr)) return {};
  const ormel::Fd fd{
      socket(AF_INET, (tcp ? SOCK_STREAM : SOCK_DGRAM) | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)};
  if (!fd) return {};
  if (connect(fd.get(), reinterpret_cast<const sockaddr*>(&to), sizeof to) != 0) {
    int error = errno;
    socklen_t size = sizeof error;
    if (error != EINPROGRESS || !wait_for(fd.get(), POLLOUT, end) ||
        getsockopt(fd.get(), SOL_SOCKET, SO_ERROR, &error, &size) != 0 || error != 0)
      return {};
  }
  constexpr int PAUSE = 2;  // seconds before a datagram is sent again
  char answer[2048];
  do {
    if (send(fd.get(), request.data(), request.size(), MSG_NOSIGNAL) < 0) return {};
    const auto next = std::min(end, Clock::now() + std::chrono::seconds(tcp ? seconds : PAUSE));
    if (!wait_for(fd.get(), POLLIN, next)) continue;
    const ssize_t got = recv(fd.get(), answer, sizeof answer, 0);
    return got > 0 ? std::string(answer, static_cast<size_t>(got)) : std::string();
  } while (!tcp && Clock::now() < end);
  return {};
}

std::string pptp_request() {
  constexpr unsigned long MAGIC = 0x1a2b3c4d;
  constexpr size_t LENGTH = 156;
  std::string packet = number(LENGTH, 2) + number(1, 2) + number(MAGIC, 4) + number(1, 2) +
                       number(0, 2) + number(0x100, 2) + number(0, 2) + number(3, 4) +
                       number(3, 4) + number(0, 2) + number(0, 2);
  packet.resize(LENGTH);  // no names of host and vendor
  return packet;
}

bool is_pptp_answer(const std::string& answer) {
  // A control message with the magic number, of the type "start control connection reply".
  return answer.size() >= 10 && answer.compare(4, 4, number(0x1a2b3c4d, 4)) == 0 &&
         answer.compare(8, 2, number(2, 2)) == 0;
}

std::string ike_request(const std::string& cookie) {
  const std::string attributes =
      number(0x80010007, 4) + number(0x800e0080, 4) + number(0x80020002, 4) +
      number(0x8004000e, 4) + number(0x80030001, 4) + number(0x800b0001, 4) + number(0x800c7080, 4);
  const std::string transform =
      number(0, 2) + number(8 + attributes.size(), 2) + number(0x01010000, 4) + attributes;
  const std::string proposal =
      number(0, 2) + number(8 + transform.size(), 2) + number(0x01010001, 4) + transform;
  const std::string sa =
      number(0, 2) + number(12 + proposal.size(), 2) + number(1, 4) + number(1, 4) + proposal;
  return cookie + std::string(8, '\0') + number(0x01100200, 4) + number(0, 4) +
         number(28 + sa.size(), 4) + sa;
}

bool is_ike_answer(const std::string& answer, const std::string& cookie) {
  return answer.size() >= 28 && answer.compare(0, cookie.size(), cookie) == 0;
}

std::string dtls_request() {
  const std::string ciphers = number(0x00a800a9, 4) + number(0xc037, 2);
  const std::string hello = number(0xfefd, 2) + std::string(32, 'r') + number(0, 2) +
                            number(ciphers.size(), 2) + ciphers + number(0x0100, 2);
  const std::string handshake = number(1, 1) + number(hello.size(), 3) + number(0, 2) +
                                number(0, 3) + number(hello.size(), 3) + hello;
  return number(22, 1) + number(0xfeff, 2) + number(0, 8) + number(handshake.size(), 2) + handshake;
}

bool is_dtls_answer(const std::string& answer) {
  constexpr size_t RECORD = 13;
  constexpr char HANDSHAKE = 22, HELLO_VERIFY = 3;
  return answer.size() > RECORD && answer[0] == HANDSHAKE && answer[RECORD] == HELLO_VERIFY;
}

}  // namespace ormelctl
