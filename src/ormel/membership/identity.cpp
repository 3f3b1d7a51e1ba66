#include "ormel/membership/identity.h"

#include <array>

#if !defined ORMEL_APP_ID || !defined ORMEL_APP_SECRET || !defined ORMEL_APP_PROVIDER
#error "the build says who the program is to the cloud"
#endif

namespace ormel::pelmar {

namespace {

constexpr uint8_t KEY = 0xa7;

constexpr uint8_t scrambled(uint8_t byte, size_t place, uint8_t key) {
  return static_cast<uint8_t>(byte ^ static_cast<uint8_t>(place) ^ key);
}

// At compile time, so that the text itself never comes into the binary.
template <size_t Size>
consteval std::array<uint8_t, Size - 1> obfuscate(const char (&text)[Size]) {
  std::array<uint8_t, Size - 1> out{};
  for (size_t i = 0; i < out.size(); ++i) out[i] = scrambled(static_cast<uint8_t>(text[i]), i, KEY);
  return out;
}

constexpr std::array<uint8_t, 24> obf_app_id = obfuscate(ORMEL_APP_ID);
constexpr std::array<uint8_t, 32> obf_app_secret = obfuscate(ORMEL_APP_SECRET);
constexpr std::array<uint8_t, 3> obf_provider = obfuscate(ORMEL_APP_PROVIDER);

template <size_t Size>
std::string plain(const std::array<uint8_t, Size>& data) {
  return deobfuscate(data.data(), data.size(), KEY);
}

}  // namespace

std::string deobfuscate(const uint8_t* data, size_t length, uint8_t key) {
  std::string out(length, '\0');
  for (size_t i = 0; i < length; ++i) out[i] = static_cast<char>(scrambled(data[i], i, key));
  return out;
}

std::string get_app_id() {
  return plain(obf_app_id);
}

std::string get_app_secret() {
  return plain(obf_app_secret);
}

std::string get_provider() {
  return plain(obf_provider);
}

}  // namespace ormel::pelmar
