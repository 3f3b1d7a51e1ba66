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

struct Row {
  const char* file;
  int kind;
  std::chrono::seconds patience;
};
constexpr Row ROWS[] = {
    // by Turn
    {"/changes.lock", LOCK_SH, 2s},
    {"/changes.lock", LOCK_EX, 10s},
    {"/pending.lock", LOCK_EX, 10s},
};

}  // namespace

StateLock::StateLock(Turn turn, const std::string& root) {
  const Row& row = ROWS[static_cast<size_t>(turn)];
  const auto end = std::chrono::steady_clock::now() + row.patience;
  if (!fenro::make_private_folder(root + FOLDER)) return;
  Fd fd{open((root + FOLDER + row.file).c_str(),
             O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, fenro::PRIVATE_FILE)};
  while (fd && flock(fd.get(), row.kind | LOCK_NB) != 0) {
    if (std::chrono::steady_clock::now() >= end) return;
    std::this_thread::sleep_for(PAUSE);
  }
  fd_ = std::move(fd);
}

}  // namespace ormel::changes
