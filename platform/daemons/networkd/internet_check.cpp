#include "daemons/networkd/internet_check.h"

#include <memory>
#include <netdb.h>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <thread>

#include "base/handle.h"
#include "common/cloud_hosts.h"

namespace fenro::networkd {
namespace {

using Clock = std::chrono::steady_clock;
constexpr std::chrono::milliseconds MOMENT{250};
constexpr std::chrono::seconds STALE{15};  // an older check answers no question
constexpr int CONNECT_MS = 3000;           // for each address
constexpr const char* PORT = "https";
constexpr std::size_t SCHEME = sizeof "https://" - 1;

bool connects(const addrinfo& address) {
  const Fd fd{socket(address.ai_family, address.ai_socktype | SOCK_CLOEXEC | SOCK_NONBLOCK,
                     address.ai_protocol)};
  if (!fd) return false;
  if (connect(fd.get(), address.ai_addr, address.ai_addrlen) == 0) return true;
  pollfd waiting{fd.get(), POLLOUT, 0};
  int error = 0;
  socklen_t length = sizeof error;
  return errno == EINPROGRESS && poll(&waiting, 1, CONNECT_MS) == 1 &&
         getsockopt(fd.get(), SOL_SOCKET, SO_ERROR, &error, &length) == 0 && error == 0;
}

bool reaches(const std::string& host) {
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* list = nullptr;
  if (getaddrinfo(host.c_str(), PORT, &hints, &list) != 0) return false;
  const std::unique_ptr<addrinfo, FreeWith<freeaddrinfo>> owner{list};
  for (const addrinfo* address = list; address; address = address->ai_next) {
    if (connects(*address)) return true;
  }
  return false;
}

}  // namespace

InternetCheck::State InternetCheck::ask() {
  const bool ready =
      outcome_.valid() && outcome_.wait_for(Clock::duration::zero()) == std::future_status::ready;
  if (!outcome_.valid() || (ready && Clock::now() - begun_ > STALE)) begin();
  if (outcome_.wait_for(MOMENT) != std::future_status::ready) return State::WORKING;
  return outcome_.get() ? State::REACHED : State::FAILED;
}

// A thread that looks a name up cannot be called back: it is left to itself, and no end of the
// daemon waits for it.
void InternetCheck::begin() {
  std::promise<bool> promise;
  outcome_ = promise.get_future();
  begun_ = Clock::now();
  std::thread{[promise = std::move(promise),
               host = cloud_base(CloudService::ACCOUNTS).substr(SCHEME)]() mutable {
    promise.set_value(reaches(host));
  }}.detach();
}

}  // namespace fenro::networkd
