// What the cloud last said of this device, asked for in the background: whoever wants to know is answered at once.
#pragma once

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>

#include "common/cloud_client.h"

namespace fenro::pelmar {

// Asks twice a minute while the cloud agent is to run, and as soon as it is started.
//
// The cloud's answer, each part of which may be missing:
//   {"router_region": {"device_name", "public_ip"}, "supernode_region": the same,
//    "supernode": {"remainingThroughput", "throughputCapacity", "renewalDate", "lastBillingDate"},
//    "supernodeDevices": [...], "supernodeDailyTraffic": [...]}
class CloudReport {
 public:
  CloudReport();
  CloudReport(const CloudReport&) = delete;
  CloudReport& operator=(const CloudReport&) = delete;
  ~CloudReport();

  struct State {
    bool connected = false;                // the last question was answered
    std::shared_ptr<const json_t> told{};  // by the last answer; null before the first
  };
  [[nodiscard]] State state() const;

 private:
  void work();
  void ask(const CloudClient& cloud);

  mutable std::mutex mutex_;
  std::condition_variable changed_;
  bool ended_ = false;
  State state_;
  std::thread thread_;
};

}  // namespace fenro::pelmar
