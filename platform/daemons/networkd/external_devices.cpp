#include "daemons/networkd/external_devices.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "base/file.h"

namespace fenro::networkd {
namespace {

const char* key_of(const json_t* fields) {
  const char* key = text_or_null(fields, DEVICE_KEY);
  return key == nullptr ? "" : key;
}

bool is_key(std::string_view key) {
  return !key.empty() && key.size() <= DEVICE_KEY_MAX &&
         std::none_of(key.begin(), key.end(),
                      [](unsigned char c) { return c < 0x20 || c == 0x7f; });
}

// Keeps a damaged file, for someone to look at.
void put_aside(const std::string& path) {
  const bool moved = std::rename(path.c_str(), (path + ".damaged").c_str()) == 0;
  std::fprintf(stderr, "%s: damaged, %s\n", path.c_str(),
               moved ? "put aside" : std::strerror(errno));
}

}  // namespace

ExternalDevices::ExternalDevices(std::string path) : path_{std::move(path)} {}

// Puts the given fields over `out`; names that are no field are passed over.
std::string ExternalDevices::read(const json_t* fields, Device& out) {
  if (!is_key(key_of(fields))) return "key is missing or bad";
  for (std::size_t i = 0; i < DEVICE_FIELDS.size(); ++i) {
    const json_t* value = json_object_get(fields, DEVICE_FIELDS[i]);
    if (value == nullptr) continue;
    if (!json_is_string(value)) return std::string{DEVICE_FIELDS[i]} + " is not a string";
    if (json_string_length(value) > DEVICE_FIELD_MAX)
      return std::string{DEVICE_FIELDS[i]} + " is too long";
    out[i].assign(json_string_value(value), json_string_length(value));
  }
  return {};
}

std::string ExternalDevices::put(const json_t* fields) {
  Device device;
  if (std::string failure = read(fields, device); !failure.empty()) return failure;
  return store(std::move(device));
}

// An unknown device is registered: a profile that was added while this daemon was down only ever
// sends changes.
std::string ExternalDevices::change(const json_t* fields) {
  const auto known = devices_.find(key_of(fields));
  Device device = known == devices_.end() ? Device{} : known->second;
  if (std::string failure = read(fields, device); !failure.empty()) return failure;
  return store(std::move(device));
}

std::string ExternalDevices::store(Device device) {
  Table next = devices_;
  next.insert_or_assign(device.front(), device);  // the key is the first field
  if (next.size() > DEVICES_MAX) return "the table is full";
  return commit(std::move(next));
}

std::string ExternalDevices::remove(std::string_view key) {
  if (!is_key(key)) return "key is missing or bad";
  Table next = devices_;
  const auto known = next.find(key);
  if (known == next.end()) return {};
  next.erase(known);
  return commit(std::move(next));
}

std::string ExternalDevices::commit(Table next) {
  if (!make_private_folder(path_.substr(0, path_.rfind('/'))) ||
      !replace_file(path_, compact(to_json(next).get()) + "\n"))
    return "the table could not be saved: " + std::string{std::strerror(errno)};
  devices_ = std::move(next);
  return {};
}

void ExternalDevices::load() {
  devices_.clear();
  std::string content;
  if (const int failure = read_file(path_.c_str(), content); failure != 0) {
    if (failure != ENOENT) put_aside(path_);
    return;
  }
  const Json file{json_loadb(content.data(), content.size(), 0, nullptr)};
  if (!json_is_object(file.get())) return put_aside(path_);
  const char* key = nullptr;
  json_t* fields = nullptr;
  json_object_foreach(file.get(), key, fields) {
    Device device;
    if (devices_.size() < DEVICES_MAX && read(fields, device).empty() && device.front() == key)
      devices_.insert_or_assign(key, std::move(device));
    else
      std::fprintf(stderr, "%s: an entry is damaged and left out\n", path_.c_str());
  }
}

Json ExternalDevices::to_json(const Device& device) {
  Json object{json_object()};
  for (std::size_t i = 0; i < DEVICE_FIELDS.size(); ++i)
    json_object_set_new(object.get(), DEVICE_FIELDS[i], json_text(device[i]).release());
  return object;
}

Json ExternalDevices::to_json(const Table& table) {
  Json object{json_object()};
  for (const auto& [key, device] : table)
    json_object_set_new(object.get(), key.c_str(), to_json(device).release());
  return object;
}

Json ExternalDevices::list() const {
  return to_json(devices_);
}

Json ExternalDevices::list(const std::string& key) const {
  const auto known = devices_.find(key);
  return to_json(known == devices_.end() ? Table{} : Table{*known});
}

}  // namespace fenro::networkd
