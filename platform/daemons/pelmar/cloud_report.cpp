#include "daemons/pelmar/cloud_report.h"

#include "daemons/pelmar/member_files.h"

namespace fenro::pelmar {

namespace {

using Clock = std::chrono::steady_clock;
constexpr std::chrono::seconds LOOK{1};  // how soon a start or stop of the agent is noticed
constexpr std::chrono::seconds PERIOD{30};

}  // namespace

CloudReport::CloudReport() : thread_([this] { work(); }) {}

CloudReport::~CloudReport() {
  {
    const std::lock_guard lock{mutex_};
    ended_ = true;
  }
  changed_.notify_all();
  thread_.join();
}

CloudReport::State CloudReport::state() const {
  if (!switched_on(CLOUDAGENT_SWITCH)) return {};
  const std::lock_guard lock{mutex_};
  return state_;
}

void CloudReport::work() {
  const CloudClient cloud;
  bool running = false;
  Clock::time_point next{};
  std::unique_lock lock{mutex_};
  while (!ended_) {
    const bool wanted = switched_on(CLOUDAGENT_SWITCH);
    if (!wanted) state_ = {};
    if (wanted && (!running || Clock::now() >= next)) {
      lock.unlock();
      ask(cloud);
      next = Clock::now() + PERIOD;
      lock.lock();
    }
    running = wanted;
    changed_.wait_for(lock, LOOK, [this] { return ended_; });
  }
}

void CloudReport::ask(const CloudClient& cloud) {
  const Device device = this_device();
  CloudReply reply;
  if (!device.id.empty())
    reply = cloud.ask({CloudService::PELMAR,
                       "GET",
                       "/dalnet/morvi/api/v1/devices/" + cloud.path_part(device.id) + "/membership",
                       {"Authorization: Device " + device.token}});
  const std::lock_guard lock{mutex_};
  state_.connected = reply.good() && reply.root;
  if (state_.connected) state_.report = {reply.root.release(), FreeJson{}};
}

}  // namespace fenro::pelmar
