#include "ormel/changes/snapshot.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <set>
#include <sys/stat.h>
#include <unistd.h>

#include "base/file.h"
#include "base/second_factor.h"
#include "base/utf8.h"
#include "ormel/base/crypto.h"
#include "ormel/base/handle.h"
#include "ormel/base/log.h"
#include "ormel/changes/settings_text.h"
#include "ormel/changes/state_files.h"
#include "ormel/config/pool.h"

namespace ormel::changes {

namespace {

constexpr const char* MANIFEST = "/manifest.json";
constexpr const char* HELD = "/held";
constexpr const char* DAMAGED = ".damaged";
constexpr int FORMAT = 1;
constexpr std::time_t UNFINISHED_SECONDS = 600;  // that a snapshot without a manifest is left alone
constexpr mode_t FOLDER_MODE = 0700;

json_t* text_value(const std::string& text) {
  return json_string(fenro::valid_utf8(text).c_str());
}

std::string text_of(const json_t* object, const char* key) {
  const char* const text = json_string_value(json_object_get(object, key));
  return text ? text : "";
}

std::string manifest_of(const Origin& origin, const std::vector<Copy>& files) {
  Json rows{json_array()};
  for (const Copy& copy : files) {
    json_array_append_new(
        rows.get(), json_pack("{s:s, s:s, s:I}", "path", copy.path.c_str(), "sha256",
                              copy.sha256.c_str(), "size", static_cast<json_int_t>(copy.size)));
  }
  const Json document{json_pack("{s:i, s:I, s:o, s:o, s:o, s:o}", "format", FORMAT, "time",
                                static_cast<json_int_t>(std::time(nullptr)), "user",
                                text_value(origin.user), "via", text_value(origin.via), "what",
                                text_value(origin.what), "files", rows.release())};
  const CString text{json_dumps(document.get(), JSON_COMPACT)};
  return text ? text.get() : "";
}

// Takes paths of the table only, so that a forged manifest reaches no other file.
bool read_files(const json_t* rows, std::vector<Copy>& files) {
  size_t at = 0;
  const json_t* row = nullptr;
  json_array_foreach(rows, at, row) {
    const std::string path = text_of(row, "path");
    if (!find_state_file(path)) return false;
    files.push_back({path, text_of(row, "sha256"),
                     static_cast<std::uint64_t>(json_integer_value(json_object_get(row, "size")))});
  }
  return json_is_array(rows);
}

std::uint64_t size_of(const Snapshot& snapshot) {
  std::uint64_t size = 0;
  for (const Copy& copy : snapshot.files) size += copy.size;
  return size;
}

void remove_folder(const std::string& path) {
  {
    const Dir folder{opendir(path.c_str())};
    while (const dirent* const entry = folder ? readdir(folder.get()) : nullptr) {
      if (entry->d_name[0] != '.') unlinkat(dirfd(folder.get()), entry->d_name, 0);
    }
  }
  rmdir(path.c_str());
}

// Users change these by themselves, and each login does.
bool holds_second_factors(const std::string& path) {
  const StateFile* const row = find_state_file(path);
  return row && row->part == Part::SecondFactors;
}

}  // namespace

std::string settled_content(const std::string& path, const std::string& text) {
  if (holds_second_factors(path)) return fenro::requirements_in(text);
  return path == config::VPN_CONF ? SettingsText(text).settled() : text;
}

const Copy* Snapshot::find(const std::string& path) const {
  const auto found = std::ranges::find(files, path, &Copy::path);
  return found == files.end() ? nullptr : &*found;
}

Snapshots::Snapshots(std::string root)
    : root_(std::move(root)), folder_(root_ + STATE_FOLDER + "/snapshots") {}

bool Snapshots::wanted() const {
  return access(folder_.c_str(), F_OK) == 0;
}

std::string Snapshots::folder_of(int id) const {
  return folder_ + '/' + std::to_string(id);
}

std::vector<int> Snapshots::ids() const {
  std::vector<int> numbers;
  const Dir folder{opendir(folder_.c_str())};
  while (const dirent* const entry = folder ? readdir(folder.get()) : nullptr) {
    int id = 0;
    const std::string_view name = entry->d_name;
    const auto [end, failure] = std::from_chars(name.data(), name.data() + name.size(), id);
    if (failure == std::errc{} && end == name.data() + name.size() && id > 0) numbers.push_back(id);
  }
  std::ranges::sort(numbers, std::greater<>());
  return numbers;
}

std::optional<Snapshot> Snapshots::read(int id) const {
  std::string text;
  if (fenro::read_file((folder_of(id) + MANIFEST).c_str(), text) != 0) return {};
  const Json document{json_loadb(text.data(), text.size(), 0, nullptr)};
  if (json_integer_value(json_object_get(document.get(), "format")) != FORMAT) return {};
  Snapshot snapshot{
      id,
      static_cast<std::time_t>(json_integer_value(json_object_get(document.get(), "time"))),
      {text_of(document.get(), "user"), text_of(document.get(), "via"),
       text_of(document.get(), "what")},
      {}};
  if (!read_files(json_object_get(document.get(), "files"), snapshot.files)) return {};
  return snapshot;
}

std::vector<Snapshot> Snapshots::list() const {
  std::vector<Snapshot> all;
  for (const int id : ids()) {
    if (auto snapshot = read(id)) all.push_back(std::move(*snapshot));
  }
  return all;
}

std::optional<Snapshot> Snapshots::find(int id) const {
  return id > 0 ? read(id) : std::nullopt;
}

std::optional<std::string> Snapshots::content(const Snapshot& snapshot,
                                              const std::string& path) const {
  const Copy* const copy = snapshot.find(path);
  if (!copy) return {};
  const auto number = copy - snapshot.files.data();
  std::string text;
  const std::string file = folder_of(snapshot.id) + '/' + std::to_string(number);
  if (fenro::read_file(file.c_str(), text, MOST_BYTES) != 0 ||
      openssl::sha256(text) != copy->sha256)
    return {};
  return text;
}

// A link to the copy of the snapshot before costs no room. One that is damaged is not handed on.
bool Snapshots::keep(const std::string& target, const std::string& text, const Copy& copy,
                     const std::optional<Snapshot>& before) const {
  const Copy* const earlier = before ? before->find(copy.path) : nullptr;
  if (earlier && earlier->sha256 == copy.sha256 && content(*before, copy.path) == text) {
    const auto number = earlier - before->files.data();
    const std::string source = folder_of(before->id) + '/' + std::to_string(number);
    if (link(source.c_str(), target.c_str()) == 0) return true;
  }
  return fenro::replace_file(target, text, fenro::PRIVATE_FILE);
}

// What is no regular file is not replaced by a save.
void Snapshots::keep_damaged_settings() const {
  const std::string file = root_ + config::VPN_CONF;
  std::string text;
  if (!config::fault_of_settings(file.c_str()) || fenro::read_file(file.c_str(), text) != 0) return;
  if (!fenro::replace_file(file + DAMAGED, text, fenro::PRIVATE_FILE))
    ORMEL_LOG(ERROR, "%s%s cannot be written", file.c_str(), DAMAGED);
}

bool Snapshots::fill(const std::string& folder, const Origin& origin) const {
  const std::vector<Snapshot> earlier = list();
  const std::optional<Snapshot> before =
      earlier.empty() ? std::nullopt : std::optional(earlier.front());
  std::vector<Copy> files;
  std::uint64_t room = MOST_BYTES;
  for (const std::string& path : existing_state(root_)) {
    std::string text;
    const int failure = fenro::read_file((root_ + path).c_str(), text, room);
    if (failure == ENOENT) continue;  // it has gone meanwhile
    errno = failure == EINVAL ? EFBIG : failure;
    if (failure != 0) return false;
    // No secret of a user is kept longer than the user has it.
    if (holds_second_factors(path)) text = settled_content(path, text);
    room -= text.size();
    files.push_back({path, openssl::sha256(text), text.size()});
    if (!keep(folder + '/' + std::to_string(files.size() - 1), text, files.back(), before))
      return false;
  }
  return fenro::replace_file(folder + MANIFEST, manifest_of(origin, files), fenro::PRIVATE_FILE);
}

int Snapshots::take(const Origin& origin, std::string& reason) const {
  keep_damaged_settings();
  constexpr int ATTEMPTS = 100;  // against others that take one at the same time
  if (!fenro::make_private_folder(folder_)) {
    reason = folder_ + " cannot be made, or others may write to it";
    return 0;
  }
  const std::vector<int> taken = ids();
  int id = taken.empty() ? 1 : taken.front() + 1;
  const int last = id + ATTEMPTS;
  int made = mkdir(folder_of(id).c_str(), FOLDER_MODE);
  while (made != 0 && errno == EEXIST && ++id < last)
    made = mkdir(folder_of(id).c_str(), FOLDER_MODE);
  if (made == 0 && fill(folder_of(id), origin)) {
    prune(id);
    return id;
  }
  reason = std::string("no snapshot could be made: ") + std::strerror(errno);
  if (made == 0) drop(id);
  return 0;
}

std::vector<std::string> Snapshots::changed_since(const Snapshot& snapshot) const {
  std::set<std::string> paths;
  for (const Copy& copy : snapshot.files) paths.insert(copy.path);
  for (const std::string& path : existing_state(root_)) paths.insert(path);
  std::erase_if(paths, [&](const std::string& path) {
    std::string now;
    if (holds_second_factors(path)) {
      const int failure = fenro::read_file((root_ + path).c_str(), now);
      return (failure == 0 || failure == ENOENT) &&
             settled_content(path, now) == content(snapshot, path).value_or("");
    }
    const Copy* const copy = snapshot.find(path);
    if (fenro::read_file((root_ + path).c_str(), now) != 0 || !copy) return false;
    if (openssl::sha256(now) == copy->sha256) return true;
    const std::optional<std::string> then = content(snapshot, path);
    return then && settled_content(path, *then) == settled_content(path, now);
  });
  return {paths.begin(), paths.end()};
}

void Snapshots::drop(int id) const {
  // The manifest first: what is left of it counts for nothing.
  unlink((folder_of(id) + MANIFEST).c_str());
  remove_folder(folder_of(id));
}

bool Snapshots::hold(int id) const {
  return fenro::replace_file(folder_of(id) + HELD, "", fenro::PRIVATE_FILE);
}

void Snapshots::release(int id) const {
  unlink((folder_of(id) + HELD).c_str());
}

void Snapshots::prune(int newest) const {
  size_t count = 0;
  std::uint64_t bytes = 0;
  for (const int id : ids()) {
    const std::optional<Snapshot> snapshot = read(id);
    if (!snapshot) {
      struct stat info {};
      if (stat(folder_of(id).c_str(), &info) == 0 &&
          std::time(nullptr) - info.st_mtime > UNFINISHED_SECONDS)
        remove_folder(folder_of(id));
      continue;
    }
    bytes += size_of(*snapshot);
    const bool needed = id == newest || access((folder_of(id) + HELD).c_str(), F_OK) == 0;
    if ((++count > MOST || bytes > MOST_BYTES) && !needed) drop(id);
  }
}

}  // namespace ormel::changes
