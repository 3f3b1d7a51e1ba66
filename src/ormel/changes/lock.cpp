#include "ormel/changes/lock.h"

#include <chrono>
#include <fcntl.h>
#include <sys/file.h>
#include <thread>

#include "base/file.h"

namespace ormel::changes {

namespace {

using namespace std::chrono_literals;

constexpr const char* FOLDER = "/run/fenro";
constexpr auto PAUSE = 50ms;
constexpr auto UNREPORTED = 2s;  // a wait too short to report

struct Row {
  const char* file;
  int kind;
  std::chrono::seconds patience;
  const char* waits_for;
};
constexpr Row ROWS[] = {
    // by Turn
    {"/changes.lock", LOCK_SH, 2s, "a restore"},
    {"/changes.lock", LOCK_EX, 10s, "running changes of settings"},
    {"/pending.lock", LOCK_EX, 10s, "another undo, confirmation or restore"},
};

void (*report_wait)(const char* what) = nullptr;

}  // namespace

void report_long_waits(void (*report)(const char* what)) {
  report_wait = report;
}

StateLock::StateLock(Turn turn, const std::string& root) {
  const Row& row = ROWS[static_cast<size_t>(turn)];
  const auto begin = std::chrono::steady_clock::now(), end = begin + row.patience;
  bool reported = report_wait == nullptr;
  if (!fenro::make_private_folder(root + FOLDER)) return;
  Fd fd{open((root + FOLDER + row.file).c_str(),
             O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, fenro::PRIVATE_FILE)};
  while (fd && flock(fd.get(), row.kind | LOCK_NB) != 0) {
    const auto now = std::chrono::steady_clock::now();
    if (now >= end) return;
    if (!reported && now >= begin + UNREPORTED) report_wait(row.waits_for);
    reported = reported || now >= begin + UNREPORTED;
    std::this_thread::sleep_for(PAUSE);
  }
  fd_ = std::move(fd);
}

}  // namespace ormel::changes
