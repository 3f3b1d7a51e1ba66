// The table of external devices: the tunnels that client profiles have announced.
// File: one JSON object on one line, the key of each device to the object of its fields, all
// strings:
//   {"PPTP_CLIENT1":{"key":"PPTP_CLIENT1","as_default_gw":"0","profile":"office",...}}
// It is replaced whole and flushed before a change is acknowledged, so neither a kill nor a power
// cut loses one.
#pragma once

#include <array>
#include <cstddef>
#include <map>
#include <string>
#include <string_view>

#include "common/json.h"

namespace fenro::networkd {

inline constexpr const char* DEVICE_KEY = "key";
inline constexpr std::array DEVICE_FIELDS = {  // in the order in which they are shown
    DEVICE_KEY, "as_default_gw", "profile",  "status",       "ip4_ip", "ip4_netmask",
    "ifname",   "type",          "protocol", "country_code", "dns",    "ip4_gw"};
inline constexpr std::size_t DEVICES_MAX = 512;  // the profiles of all types are 160
inline constexpr std::size_t DEVICE_FIELD_MAX =
    2048;  // a name of 600 bytes, replacement characters included
inline constexpr std::size_t DEVICE_KEY_MAX = 64;

class ExternalDevices {
 public:
  explicit ExternalDevices(std::string path);

  // Reads the file. What is damaged is left out; a file that cannot be read at all is put aside,
  // and the table is empty.
  void load();

  // Each returns an empty text, or why the table is unchanged.
  [[nodiscard]] std::string put(const json_t* fields);     // replaces a device of the same key
  [[nodiscard]] std::string change(const json_t* fields);  // keeps the fields that are not given
  [[nodiscard]] std::string remove(std::string_view key);  // an unknown key is gone already

  // Key to fields, of all devices or of the one asked for.
  [[nodiscard]] Json list() const;
  [[nodiscard]] Json list(const std::string& key) const;

 private:
  using Device =
      std::array<std::string, DEVICE_FIELDS.size()>;  // the values, in the order of DEVICE_FIELDS
  using Table = std::map<std::string, Device, std::less<>>;

  [[nodiscard]] static std::string read(const json_t* fields, Device& out);
  [[nodiscard]] static Json to_json(const Device& device);
  [[nodiscard]] static Json to_json(const Table& table);
  [[nodiscard]] std::string store(Device device);
  [[nodiscard]] std::string commit(Table next);

  std::string path_;
  Table devices_;
};

}  // namespace fenro::networkd
