#include "common/login_policy.h"

#include <chrono>
#include <cstdint>
#include <fcntl.h>
#include <memory>
#include <string>
#include <sys/file.h>
#include <sys/stat.h>
#include <thread>

#include <fenro/mibservice.h>

#include "base/bus_handle.h"
#include "base/file.h"
#include "base/log_db_records.h"

namespace fenro {
namespace {

namespace log_db = ormel::log_db;

constexpr const char* FOLDER = "/run/fenro/logins";
constexpr std::uint32_t FILES =
    256;  // users share them, so that strangers' names cannot fill the folder
constexpr auto LONGEST_WAIT = std::chrono::seconds(10);
constexpr auto PAUSE = std::chrono::milliseconds(10);
constexpr const char* BLOCKED = "1";
constexpr int NO_FLAG = -1;

std::uint32_t hash_of(std::string_view user) {
  std::uint32_t hash = 2166136261U;  // FNV-1a
  for (const char c : user) hash = (hash ^ static_cast<unsigned char>(c)) * 16777619U;
  return hash;
}

// One question about a user; false when the log database is away.
bool ask(const char* method, std::string_view user, std::string& reply) {
  const MibIo io{mib_io_create()};
  if (!io || mib_io_write(io.get(), user.data(), user.size()) < 0) return false;
  if (mib_call(log_db::SERVICE, method, io.get(), log_db::TIMEOUT, NO_FLAG) != MIB_SUCCESS)
    return false;
  const char* text = mib_io_read(io.get(), nullptr);
  reply = text ? text : "";
  return true;
}

}  // namespace

LoginTurn::LoginTurn(std::string_view user) {
  if (!make_private_folder(FOLDER)) return;
  std::string path = FOLDER;
  path += "/turn.";
  path += std::to_string(hash_of(user) % FILES);
  Fd fd{open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK,
             S_IRUSR | S_IWUSR)};
  if (!fd) return;
  const auto deadline = std::chrono::steady_clock::now() + LONGEST_WAIT;
  while (flock(fd.get(), LOCK_EX | LOCK_NB) != 0) {
    if (std::chrono::steady_clock::now() >= deadline) return;
    std::this_thread::sleep_for(PAUSE);
  }
  fd_ = std::move(fd);
}

bool is_blocked(std::string_view user) {
  std::string reply;
  return !ask(log_db::PRIVILEGE_USER_BLOCK_CHECK, user, reply) || reply == BLOCKED;
}

bool count_login(std::string_view user, bool good) {
  std::string unused;
  const auto& table = log_db::PRIVILEGE_USER_BLOCK;
  return ask(good ? table.remove : table.insert, user, unused);
}

}  // namespace fenro
