// The calling half of the bus: one connection, one request, one reply, all within one deadline.
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <new>
#include <poll.h>

#include "base/handle.h"
#include "libmibservice/mib_io.h"
#include "libmibservice/wire.h"

namespace fenro::bus {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr std::size_t CHUNK = std::size_t{64} << 10;

milliseconds time_left(Clock::time_point deadline) {
  return std::max(std::chrono::ceil<milliseconds>(deadline - Clock::now()), milliseconds::zero());
}

// Waits in the kernel for a place in the service's queue, so that a busy service does not look
// absent.
int connect_to(const Fd& socket, const Address& address, Clock::time_point deadline) {
  const auto left = std::max(time_left(deadline), milliseconds{1});  // 0 would mean for ever
  const timeval limit{left.count() / 1000, left.count() % 1000 * 1000};
  if (setsockopt(socket.get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit) != 0)
    return MIB_IO_FAILURE;

  int rc = 0;
  do {
    rc = connect(socket.get(), reinterpret_cast<const sockaddr*>(&address.sun), address.length);
  } while (rc != 0 && errno == EINTR && Clock::now() < deadline);
  if (rc == 0) return MIB_SUCCESS;
  if (errno == EAGAIN || errno == EINTR) return MIB_TIMEOUT;
  return errno == ECONNREFUSED || errno == ENOENT ? MIB_NOT_READY : MIB_IO_FAILURE;
}

// Both directions of one call. Reads the reply while still writing the request, since a service
// may refuse a request before it has read all of it.
class Exchange {
 public:
  Exchange(const Fd& socket, std::string request) : socket_(socket), request_(std::move(request)) {}

  int run(Clock::time_point deadline) {
    while (!complete()) {
      pollfd entry{socket_.get(), static_cast<short>(sending() ? POLLIN | POLLOUT : POLLIN), 0};
      const int ready =
          poll(&entry, 1,
               static_cast<int>(std::min<milliseconds::rep>(time_left(deadline).count(), INT_MAX)));
      if (ready == 0) return MIB_TIMEOUT;
      if (ready < 0 && errno != EINTR) return MIB_IO_FAILURE;
      if (ready < 0) continue;
      if ((entry.revents & POLLOUT) != 0) send_some();
      if ((entry.revents & (POLLIN | POLLHUP | POLLERR)) == 0) continue;
      if (const int rc = receive_some(); rc != MIB_SUCCESS) return rc;
    }
    return static_cast<int>(get_number(reply_.data() + NUMBER));
  }

  [[nodiscard]] std::string take_body() {
    reply_.erase(0, HEAD);
    return std::move(reply_);
  }

 private:
  [[nodiscard]] bool sending() const { return sent_ < request_.size(); }
  [[nodiscard]] std::size_t expected() const {
    return reply_.size() < NUMBER ? HEAD : NUMBER + get_number(reply_.data());
  }
  [[nodiscard]] bool complete() const {
    return reply_.size() >= HEAD && reply_.size() == expected();
  }

  void send_some() {
    const ssize_t n = ::send(socket_.get(), request_.data() + sent_, request_.size() - sent_,
                             MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n >= 0) sent_ += static_cast<std::size_t>(n);
    // A service that hung up reads no more, but its earlier output must still be read.
    if (n < 0 && errno != EAGAIN && errno != EINTR) sent_ = request_.size();
  }

  int receive_some() {
    const std::size_t start = reply_.size();
    reply_.resize(std::min(expected(), start + CHUNK));
    const ssize_t n =
        recv(socket_.get(), reply_.data() + start, reply_.size() - start, MSG_DONTWAIT);
    const bool again = n < 0 && (errno == EAGAIN || errno == EINTR);
    reply_.resize(start + (n > 0 ? static_cast<std::size_t>(n) : 0));
    if (n <= 0) return again ? MIB_SUCCESS : MIB_IO_FAILURE;
    if (reply_.size() < NUMBER) return MIB_SUCCESS;
    const std::size_t total = get_number(reply_.data());
    if (total > MAX_FRAME) return MIB_IS_REJECT;
    return total < NUMBER ? MIB_IO_FAILURE : MIB_SUCCESS;
  }

  const Fd& socket_;
  std::string request_;
  std::size_t sent_ = 0;
  std::string reply_;
};

int call(std::string_view service, std::string_view method, mib_io& io,
         Clock::time_point deadline) {
  const Address address = address_of(service);
  if (address.length == 0 || method.empty()) return MIB_IS_INVALID;
  if (method.size() + io.bytes.size() + NUMBER > MAX_FRAME) return MIB_IS_REJECT;

  const Fd socket{::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)};
  if (!socket) return MIB_IO_FAILURE;
  if (const int rc = connect_to(socket, address, deadline); rc != MIB_SUCCESS) return rc;
  // Any user can bind a free abstract name: send nothing to an unknown peer.
  if (!peer_is_trusted(socket.get())) return MIB_IS_REJECT;

  Exchange exchange{socket, request_frame(method, io.bytes)};
  const int status = exchange.run(deadline);
  if (status == MIB_SUCCESS) io.bytes = exchange.take_body();
  return status >= MIB_SUCCESS && status <= MIB_IS_INVALID ? status : MIB_IO_FAILURE;
}

}  // namespace
}  // namespace fenro::bus

int mib_call(const char* service, const char* method, mib_io* io, int timeout_seconds,
             int /*flag*/) {
  using fenro::bus::Clock;
  if (!service || !method || !io) return MIB_IS_INVALID;
  const auto deadline = Clock::now() + std::chrono::seconds{std::max(timeout_seconds, 1)};
  try {
    return fenro::bus::call(service, method, *io, deadline);
  } catch (const std::bad_alloc&) {
    return MIB_IO_FAILURE;
  }
}
