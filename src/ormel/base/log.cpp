#include "ormel/base/log.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include "base/file.h"
#include "ormel/base/handle.h"

namespace ormel {

namespace {

constexpr const char* LOG_LOCK_FILE = "/var/lock/ormel_log.lck";
constexpr size_t MAX_PATH = sizeof __log_file__;
constexpr off_t ROTATE_SIZE = 2097152;
constexpr int OLD_GENERATIONS = 5;

}  // namespace

int __cur_level__ = ORMELLOG_DEBUG;
int __cur_type__ = ORMELLOG_TYPE_FILE;
char __log_file__[256] = "/var/log/network/ORMEL.log";

namespace system {

namespace {

int _iot_lock_fd = -1;

const char* level_word(int level) {
  switch (level) {
    case ORMELLOG_DEBUG: return "DEBUG";
    case ORMELLOG_INFO: return "INFO";
    case ORMELLOG_WARN: return "WARN";
    case ORMELLOG_ERROR: return "ERROR";
    default: return "";
  }
}

bool is_ours(const struct stat& file) {
  return file.st_uid == 0 || file.st_uid == geteuid();
}

int lock_whole_file(int fd, int command, short type) {
  struct flock lock {};
  lock.l_type = type;
  lock.l_whence = SEEK_SET;
  return fcntl(fd, command, &lock);
}

// Every user may put an entry of this name into the folder: a FIFO, or a file that is locked, must
// not make us wait. The log says so once, and lines are written without the lock from then on.
void open_line_lock() {
  static bool refused = false;
  if (refused) return;
  Fd fd{open(LOG_LOCK_FILE, O_WRONLY | O_CREAT | O_CLOEXEC | O_NONBLOCK | O_NOFOLLOW, 0777)};
  struct stat entry {};
  if (fd && fstat(fd.get(), &entry) == 0 && S_ISREG(entry.st_mode) && is_ours(entry)) {
    _iot_lock_fd = fd.release();
    return;
  }
  refused = lstat(LOG_LOCK_FILE, &entry) == 0;
  if (refused && !is_ours(entry)) {
    ORMEL_LOG(WARN, ": %s is not the log's lock file: user %u put it there. Remove it.",
              LOG_LOCK_FILE, entry.st_uid);
  }
}

// The descriptor is closed after each line, so this opens the lock file and takes no lock: lines of
// several processes are kept whole by writing each in one append.
void lock_before_line() {
  if (_iot_lock_fd == -1) {
    open_line_lock();
  } else {
    lock_whole_file(_iot_lock_fd, F_SETLKW, F_WRLCK);
  }
}

void unlock_after_line() {
  if (_iot_lock_fd == -1) {
    open_line_lock();
    return;
  }
  lock_whole_file(_iot_lock_fd, F_SETLK, F_UNLCK);
  close(std::exchange(_iot_lock_fd, -1));
}

std::string format_line(int level, const char* unit, int line, const char* function,
                        const char* format, va_list arguments) {
  char when[32] = "";
  const time_t now = std::time(nullptr);
  struct tm local {};
  if (localtime_r(&now, &local)) std::strftime(when, sizeof when, "%Y-%m-%d %H:%M:%S", &local);

  char* text = nullptr;
  const int length = vasprintf(&text, format, arguments);
  const CString message{length < 0 ? nullptr : text};

  std::string out = when;
  out += ' ' + std::to_string(getpid()) + " [" + level_word(level) + "] " + unit + " [" +
         std::to_string(line) + "] " + function + ':';
  if (message) out.append(message.get(), static_cast<size_t>(length));
  return out += '\n';
}

void append_to_log(const std::string& line) {
  // Private: lines can quote what users and services sent.
  const Fd log{open(__log_file__, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, fenro::PRIVATE_FILE)};
  if (log)
    std::ignore =
        write(log.get(), line.data(), line.size());  // a line that the disk refuses is lost
}

}  // namespace

void log_line(int level, const char* unit, int line, const char* function, const char* format,
              ...) {
  if (__cur_level__ > level) return;
  const bool to_file = __cur_type__ == ORMELLOG_TYPE_FILE && __log_file__[0] != '\0';
  if (__cur_type__ != ORMELLOG_TYPE_STDOUT && !to_file) return;

  va_list arguments;
  va_start(arguments, format);
  const std::string text = format_line(level, unit, line, function, format, arguments);
  va_end(arguments);

  if (!to_file) {
    std::fwrite(text.data(), 1, text.size(), stdout);
    return;
  }
  lock_before_line();
  append_to_log(text);
  unlock_after_line();
}

namespace {

bool exists(const std::string& path) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0;
}

// Renames each generation to the next, the live log to the first. Returns false at the first rename
// that fails.
bool shift_generations(const std::string& path) {
  for (int i = OLD_GENERATIONS - 1; i >= 0; --i) {
    const std::string source = i == 0 ? path : path + '.' + std::to_string(i);
    const std::string target = path + '.' + std::to_string(i + 1);
    if (exists(source) && std::rename(source.c_str(), target.c_str()) != 0) return false;
  }
  return true;
}

void sync_folder_of(const std::string& path) {
  const std::string folder = path.substr(0, path.rfind('/'));
  const Fd fd{open(folder.c_str(), O_RDONLY | O_CLOEXEC)};
  if (!fd || fsync(fd.get()) != 0) {
    std::fprintf(stderr, "Warning: fsync failed on directory: %s (errno=%d)\n", folder.c_str(),
                 errno);
  }
}

void rotate_locked(const std::string& path) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0 || status.st_size < ROTATE_SIZE) return;

  const std::string temporary = path + ".tmp";
  if (temporary.size() >= MAX_PATH) {
    std::fprintf(stderr, "Error: temp file path too long (path: %s.tmp)\n", path.c_str());
    return;
  }
  if (const Fd fd{
          open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, fenro::PRIVATE_FILE)};
      !fd)
    return;
  if (!shift_generations(path) || std::rename(temporary.c_str(), path.c_str()) != 0) {
    unlink(temporary.c_str());
    return;
  }
  sync_folder_of(path);
}

}  // namespace

void log_rotate(const char* path) {
  const std::string lock_path = std::string(path) + ".lock";
  if (lock_path.size() >= MAX_PATH) {
    std::fprintf(stderr, "Error: lock file path too long (path: %s.lock)\n", path);
    return;
  }
  const Fd lock{
      open(lock_path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | O_NONBLOCK | O_NOFOLLOW, 0644)};
  if (!lock) {
    std::fputs("Error: Failed to create lock file for log rotation\n", stderr);
    return;
  }
  if (lock_whole_file(lock.get(), F_SETLKW, F_WRLCK) != 0) return;
  rotate_locked(path);
  lock_whole_file(lock.get(), F_SETLK, F_UNLCK);
}

}  // namespace system
}  // namespace ormel
