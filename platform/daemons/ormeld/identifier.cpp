#include "daemons/ormeld/identifier.h"

#include <array>
#include <sys/random.h>

namespace fenro::ormeld {

std::string make_identifier(bool hyphens) {
  std::array<unsigned char, 16> bytes{};
  if (getrandom(bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) return {};
  bytes[6] = static_cast<unsigned char>((bytes[6] & 0x0F) | 0x40);  // the bits that say "random"
  bytes[8] = static_cast<unsigned char>((bytes[8] & 0x3F) | 0x80);

  std::string text;
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    if (hyphens && (i == 4 || i == 6 || i == 8 || i == 10)) text += '-';
    text += "0123456789abcdef"[bytes[i] >> 4];
    text += "0123456789abcdef"[bytes[i] & 0x0F];
  }
  return text;
}

}  // namespace fenro::ormeld
