#include "base/grants.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <utility>

#include "base/base64.h"
#include "base/c_memory.h"
#include "base/file.h"
#include "base/json_handle.h"

namespace fenro {
namespace {

constexpr auto LONGEST_WAIT = std::chrono::seconds(10);
constexpr auto PAUSE = std::chrono::milliseconds(20);
constexpr const char* COPY = ".good";

std::string folder_of(const std::string& path) {
  return path.substr(0, path.rfind('/'));
}

// False when the member is missing, is not base64 or is empty.
bool take_name(const json_t* item, const char* member, std::string& out) {
  const char* const text = json_string_value(json_object_get(item, member));
  return text && parse_base64(text, out) && !out.empty();
}

bool take_dates(json_t* dates, std::map<std::uint32_t, std::int64_t>& out) {
  const char* server = nullptr;
  json_t* until = nullptr;
  json_object_foreach(dates, server, until) {
    const std::string_view text = server;
    std::uint32_t type = 0;
    const auto [end, failure] = std::from_chars(text.data(), text.data() + text.size(), type);
    const std::int64_t seconds = json_integer_value(until);
    if (failure != std::errc{} || end != text.data() + text.size() || seconds <= 0) return false;
    out[type] = seconds;
  }
  return json_is_object(dates);
}

bool take_grant(const json_t* item, Grant& out) {
  const json_int_t devices = json_integer_value(json_object_get(item, "devices"));
  out.devices = static_cast<int>(std::clamp<json_int_t>(devices, 0, MOST_DEVICES));
  return take_name(item, "user", out.user) && take_dates(json_object_get(item, "until"), out.until);
}

bool take_device(const json_t* item, OwnedDevice& out) {
  const char* const key = json_string_value(json_object_get(item, "key"));
  out.key = key ? key : "";
  return !out.key.empty() && take_name(item, "owner", out.owner);
}

// Reads the well-formed rows; false when some are malformed.
template <typename Row>
bool take_rows(const json_t* list, bool (*take)(const json_t*, Row&), std::vector<Row>& out) {
  bool whole = json_is_array(list);
  std::size_t at = 0;
  const json_t* item = nullptr;
  json_array_foreach(list, at, item) {
    Row row;
    if (take(item, row)) {
      out.push_back(std::move(row));
    } else {
      whole = false;
    }
  }
  return whole;
}

// What a text says; damaged where it is not whole.
GrantBook parse(const std::string& text) {
  GrantBook book;
  const Json root{json_loadb(text.data(), text.size(), 0, nullptr)};
  const bool grants = take_rows(json_object_get(root.get(), "grants"), take_grant, book.grants);
  const bool devices = take_rows(json_object_get(root.get(), "devices"), take_device, book.devices);
  book.damaged = !grants || !devices;
  return book;
}

Json grant_row(const Grant& grant) {
  const Json dates{json_object()};
  for (const auto& [server, until] : grant.until)
    json_object_set_new(dates.get(), std::to_string(server).c_str(), json_integer(until));
  return Json{json_pack("{s:s, s:i, s:O}", "user", to_base64(grant.user).c_str(), "devices",
                        grant.devices, "until", dates.get())};
}

std::string text_of(const GrantBook& book) {
  const Json grants{json_array()};
  for (const Grant& grant : book.grants)
    json_array_append_new(grants.get(), grant_row(grant).release());
  const Json devices{json_array()};
  for (const OwnedDevice& device : book.devices) {
    json_array_append_new(devices.get(), json_pack("{s:s, s:s}", "key", device.key.c_str(), "owner",
                                                   to_base64(device.owner).c_str()));
  }
  const Json root{json_pack("{s:O, s:O}", "grants", grants.get(), "devices", devices.get())};
  const CString text{json_dumps(root.get(), JSON_COMPACT)};
  return text ? std::string(text.get()) + '\n' : std::string();
}

}  // namespace

std::int64_t Grant::end_of(std::uint32_t server) const {
  const auto found = until.find(server);
  return found == until.end() ? 0 : found->second;
}

std::uint32_t Grant::ended(std::time_t now) const {
  std::uint32_t mask = 0;
  for (const auto& [server, end] : until) {
    if (end <= now) mask |= server;
  }
  return mask;
}

Grant GrantBook::of(std::string_view user) const {
  const auto found = std::ranges::find(grants, user, &Grant::user);
  return found == grants.end() ? Grant{.user = std::string(user)} : *found;
}

void GrantBook::put(Grant grant) {
  std::erase_if(grants, [&](const Grant& old) { return old.user == grant.user; });
  if (!grant.is_empty()) grants.push_back(std::move(grant));
}

std::vector<std::string> GrantBook::keys_of(std::string_view user) const {
  std::vector<std::string> keys;
  for (const OwnedDevice& device : devices) {
    if (device.owner == user) keys.push_back(device.key);
  }
  return keys;
}

std::string GrantBook::owner_of(std::string_view key) const {
  const auto found = std::ranges::find(devices, key, &OwnedDevice::key);
  return found == devices.end() ? std::string() : found->owner;
}

void GrantBook::replace_key(std::string_view key, const std::string& other) {
  const auto found = std::ranges::find(devices, key, &OwnedDevice::key);
  if (found == devices.end()) return;
  if (other.empty()) {
    devices.erase(found);
  } else {
    found->key = other;
  }
}

std::int64_t GrantBook::next_end() const {
  std::int64_t next = 0;
  for (const Grant& grant : grants) {
    for (const auto& [server, end] : grant.until) next = next == 0 ? end : std::min(next, end);
  }
  return next;
}

bool has_grants(const char* file) {
  return access(file, F_OK) == 0;
}

GrantBook read_grants(const std::string& file) {
  std::string text;
  const int failure = read_file(file.c_str(), text);
  if (failure == ENOENT) return {};
  GrantBook book = parse(text);
  book.damaged = book.damaged || failure != 0;
  if (!book.damaged || read_file((file + COPY).c_str(), text) != 0) return book;
  GrantBook copy = parse(text);
  if (copy.damaged) return book;
  copy.damaged = copy.is_copy = true;
  return copy;
}

bool keep_good_copy(const std::string& file) {
  const std::string copy = file + COPY;
  std::string text, kept;
  const int failure = read_file(file.c_str(), text);
  if (failure == ENOENT) return unlink(copy.c_str()) == 0 || errno == ENOENT;
  if (failure != 0 || parse(text).damaged) return true;
  const bool same = read_file(copy.c_str(), kept) == 0 && kept == text;
  return same || replace_file(copy, text, PRIVATE_FILE);
}

bool has_ended(std::string_view user, std::uint32_t server, const std::string& file,
               std::time_t now) {
  return has_grants(file.c_str()) && (read_grants(file).of(user).ended(now) & server) != 0;
}

GrantChange::GrantChange(std::string file, const std::string& lock) : file_(std::move(file)) {
  if (!make_private_folder(folder_of(file_)) || !make_private_folder(folder_of(lock))) return;
  Fd fd{open(lock.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, S_IRUSR | S_IWUSR)};
  const auto deadline = std::chrono::steady_clock::now() + LONGEST_WAIT;
  while (fd && flock(fd.get(), LOCK_EX | LOCK_NB) != 0) {
    if (std::chrono::steady_clock::now() >= deadline) return;
    std::this_thread::sleep_for(PAUSE);
  }
  lock_ = std::move(fd);
  book = read_grants(file_);
}

bool GrantChange::save() const {
  const std::string text = text_of(book);
  return !text.empty() && replace_file(file_, text, PRIVATE_FILE);
}

}  // namespace fenro
