// The cloud's latest report about this device, fetched in the background so that readers never
// wait.
#pragma once

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>

#include "common/cloud_client.h"

namespace fenro::pelmar {

// Polls twice a minute while the cloud agent is enabled, and immediately when it starts.
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
    bool connected = false;                  // the last poll was answered
    std::shared_ptr<const json_t> report{};  // the last answer; null before the first
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
