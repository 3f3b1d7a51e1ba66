#include "ormelctl/archive.h"

#include <algorithm>
#include <archive.h>
#include <archive_entry.h>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <memory>
#include <string_view>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "ormel/base/file.h"
#include "ormel/base/library.h"
#include "ormel/base/text.h"

namespace ormelctl {

namespace {

// Few runs meet an archive, so the library is loaded then.
constexpr const char* LIBRARY = "libarchive.so.13";
constexpr size_t MOST_FILES = 200;
constexpr size_t MOST_BYTES = size_t{10} << 20U;
constexpr size_t BLOCK = 65536;

struct Api {
  decltype(&::archive_read_new) make;
  decltype(&::archive_read_free) free;
  decltype(&::archive_read_support_filter_all) all_filters;
  decltype(&::archive_read_support_format_all) all_formats;
  decltype(&::archive_read_open_filename) open;
  decltype(&::archive_read_next_header) next;
  decltype(&::archive_read_data) read;
  decltype(&::archive_entry_pathname) name;
  decltype(&::archive_entry_filetype) type;
  decltype(&::archive_error_string) error;
};

bool load(Api& api) {
  using ormel::find_function;
  return ormel::load_library(LIBRARY) && find_function(api.make, "archive_read_new") &&
         find_function(api.free, "archive_read_free") &&
         find_function(api.all_filters, "archive_read_support_filter_all") &&
         find_function(api.all_formats, "archive_read_support_format_all") &&
         find_function(api.open, "archive_read_open_filename") &&
         find_function(api.next, "archive_read_next_header") &&
         find_function(api.read, "archive_read_data") &&
         find_function(api.name, "archive_entry_pathname") &&
         find_function(api.type, "archive_entry_filetype") &&
         find_function(api.error, "archive_error_string");
}

const Api* api() {
  static Api functions{};
  static const bool loaded = load(functions);
  return loaded ? &functions : nullptr;
}

struct FreeArchive {
  void operator()(archive* one) const noexcept { api()->free(one); }
};
using Archive = std::unique_ptr<archive, FreeArchive>;

std::string problem(const std::string& path, archive* one) {
  const char* text = api()->error(one);
  return path + " cannot be unpacked: " + (text ? text : "not an archive");
}

// Appends the content of the present entry; false when there is too much, or it cannot be read.
bool read_content(archive* one, std::string& content, size_t room) {
  char block[BLOCK];
  la_ssize_t got = 0;
  while ((got = api()->read(one, block, sizeof block)) > 0) {
    content.append(block, static_cast<size_t>(got));
    if (content.size() > room) return false;
  }
  return got == 0;
}

// Of the second process: a signal to the first one's group does not reach it, and it keeps no
// stream open.
[[noreturn]] void remove_after(int wait, int life, const char* path) {
  setsid();
  for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO, life}) close(stream);
  char nothing = 0;
  while (read(wait, &nothing, 1) < 0 && errno == EINTR) continue;
  execl("/bin/rm", "rm", "-rf", "--", path, nullptr);
  _exit(EXIT_FAILURE);
}

}  // namespace

PrivateFolder::PrivateFolder() : path_("/run/ormelctl.XXXXXX") {
  int ends[2] = {-1, -1};
  if (!mkdtemp(path_.data())) {
    path_.clear();
    return;
  }
  const bool piped = pipe2(ends, O_CLOEXEC) == 0;
  const ormel::Fd wait{ends[0]};
  life_ = ormel::Fd{ends[1]};
  if (piped) remover_ = fork();
  if (remover_ == 0) remove_after(wait.get(), life_.get(), path_.c_str());
  if (remover_ > 0) return;
  rmdir(path_.c_str());
  path_.clear();
}

PrivateFolder::~PrivateFolder() {
  life_ = ormel::Fd{};
  if (remover_ > 0) waitpid(remover_, nullptr, 0);
}

bool is_archive(const std::string& path) {
  constexpr std::string_view ENDINGS[] = {".zip", ".tar", ".tgz", ".gz",
                                          ".xz",  ".bz2", ".zst", ".7z"};
  const std::string name = ormel::to_lower(path);
  return std::any_of(std::begin(ENDINGS), std::end(ENDINGS),
                     [&](std::string_view ending) { return name.ends_with(ending); });
}

std::string unpack(const std::string& path, const std::string& folder,
                   std::vector<PackedFile>& files) {
  if (!api()) return "archives need the package libarchive13";
  const Archive one{api()->make()};
  if (!one) return "out of memory";
  api()->all_filters(one.get());
  api()->all_formats(one.get());
  if (api()->open(one.get(), path.c_str(), BLOCK) != ARCHIVE_OK) return problem(path, one.get());
  size_t bytes = 0;
  archive_entry* entry = nullptr;
  int status = 0;
  for (size_t seen = 0; (status = api()->next(one.get(), &entry)) == ARCHIVE_OK; ++seen) {
    if (seen == MOST_FILES)
      return path + " holds more than " + std::to_string(MOST_FILES) + " files";
    const char* name = api()->name(entry);
    if (api()->type(entry) != AE_IFREG || !name) continue;
    std::string content;
    if (!read_content(one.get(), content, MOST_BYTES - bytes)) {
      return content.size() > MOST_BYTES - bytes ? path + " holds more than 10 MiB"
                                                 : problem(path, one.get());
    }
    bytes += content.size();
    const std::string place = folder + '/' + std::to_string(files.size());
    if (!ormel::system::write_file(content, place.c_str(), fenro::PRIVATE_FILE))
      return "no room to unpack " + path;
    const std::string_view whole = name;
    files.push_back({std::string(whole.substr(whole.find_last_of("/\\") + 1)), place});
  }
  return status == ARCHIVE_EOF ? std::string() : problem(path, one.get());
}

}  // namespace ormelctl
