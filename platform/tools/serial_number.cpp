#include "tools/serial_number.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <nettle/sha2.h>
#include <strings.h>

#include "base/handle.h"
#include "base/lines.h"
#include "libfenro/ini_file.h"
#include "libfenro/paths.h"

namespace fenro {
namespace {

constexpr const char* SECTION = "System";
constexpr const char* KEY = "Serial Number";
constexpr const char* DMI_SERIAL = "/sys/class/dmi/id/product_serial";
constexpr const char* MACHINE_ID = "/etc/machine-id";
constexpr std::string_view PURPOSE =
    "fenro serial number\n";  // makes other programs' hashes of the id differ
constexpr std::size_t DIGITS = 12;
constexpr std::array<const char*, 8> PLACEHOLDERS{"None",
                                                  "Not Specified",
                                                  "Not Applicable",
                                                  "Default string",
                                                  "System Serial Number",
                                                  "To be filled by O.E.M.",
                                                  "Unknown",
                                                  "INVALID"};

// Returns the first line of a file. A kernel file's size is not its real one.
std::string first_line(const char* path) {
  std::array<char, 256> line{};
  const File file{std::fopen(path, "re")};
  return file && std::fgets(line.data(), line.size(), file.get())
             ? std::string{trimmed(line.data())}
             : std::string{};
}

}  // namespace

bool is_placeholder(std::string_view number) {
  const std::string text{number};
  return text.find_first_not_of('0') == std::string::npos ||
         std::any_of(PLACEHOLDERS.begin(), PLACEHOLDERS.end(),
                     [&](const char* word) { return strcasecmp(word, text.c_str()) == 0; });
}

std::string number_from(std::string_view machine_id) {
  constexpr std::string_view HEX = "0123456789ABCDEF";
  const std::string input = std::string(PURPOSE).append(machine_id);
  std::array<std::uint8_t, SHA256_DIGEST_SIZE> digest{};
  sha256_ctx hash{};
  sha256_init(&hash);
  sha256_update(&hash, input.size(), reinterpret_cast<const std::uint8_t*>(input.data()));
  sha256_digest(&hash, digest.size(), digest.data());
  std::string number;
  for (std::size_t i = 0; i < DIGITS / 2; ++i)
    number.append({HEX[digest[i] >> 4], HEX[digest[i] & 15]});
  return number;
}

std::string serial_number() {
  const std::string value = ini::read_value(paths::SYSTEM_CONF, SECTION, KEY).value_or("");
  std::string configured{trimmed(value)};
  if (!configured.empty()) return configured;
  std::string burnt_in = first_line(DMI_SERIAL);
  if (!is_placeholder(burnt_in)) return burnt_in;
  const std::string id = first_line(MACHINE_ID);
  return id.empty() ? id : number_from(id);
}

}  // namespace fenro
