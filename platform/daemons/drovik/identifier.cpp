#include "daemons/drovik/identifier.h"

#include <array>
#include <cstdio>
#include <filesystem>
#include <set>
#include <system_error>

#include <openssl/evp.h>

#include "base/file.h"

namespace fenro::drovik {
namespace {

constexpr const char* LINKS = "/sys/class/net";
constexpr const char* MACHINE = "/etc/machine-id";
constexpr const char* ETHERNET = "1\n";  // type of a link
constexpr unsigned LOCAL = 2;      // set in the first byte of an address that no maker gave out
constexpr unsigned MULTICAST = 1;  // and this one clear in that of a single machine

std::string content_of(const std::string& path) {
  std::string text;
  return read_file(path.c_str(), text) == 0 ? text : std::string{};
}

// What tells this machine from others: its number, else the addresses of its network cards.
std::string traits() {
  std::string all = content_of(MACHINE);
  if (!all.empty()) return all;
  std::set<std::string> addresses;
  std::error_code failure;
  for (const auto& link : std::filesystem::directory_iterator{LINKS, failure}) {
    if (content_of(link.path() / "type") == ETHERNET)
      addresses.insert(content_of(link.path() / "address"));
  }
  for (const std::string& address : addresses) all += address;
  return all;
}

}  // namespace

std::string make_identifier(const std::string& interface) {
  const std::string text = traits() + interface;
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  if (EVP_Digest(text.data(), text.size(), digest.data(), nullptr, EVP_sha256(), nullptr) != 1)
    return {};
  char identifier[sizeof "xx:xx:xx:xx:xx:xx"];
  std::snprintf(identifier, sizeof identifier, "%02x:%02x:%02x:%02x:%02x:%02x",
                (digest[0] | LOCAL) & ~MULTICAST & 0xff, digest[1], digest[2], digest[3], digest[4],
                digest[5]);
  return identifier;
}

}  // namespace fenro::drovik
