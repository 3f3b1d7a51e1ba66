#include "ormel/host/public_address.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cctype>
#include <cerrno>
#include <iterator>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

#include "ormel/base/address.h"
#include "ormel/base/error.h"
#include "ormel/base/file.h"
#include "ormel/base/text.h"

namespace ormel::system {

namespace {

constexpr const char* FOLDER = "/etc/config/ormel";
constexpr const char* FILE_NAME = "/etc/config/ormel/public_address";
constexpr mode_t FOLDER_MODE = 0755;
constexpr mode_t FILE_MODE = 0644;  // a name that the whole world may know
constexpr size_t LONGEST = 253;     // bytes of a name

// Networks whose addresses are used again and again all over the world.
struct Range {
  const char* first;
  int bits;
};
constexpr Range PRIVATE[] = {
    {"10.0.0.0", 8},     {"172.16.0.0", 12},
    {"192.168.0.0", 16}, {"100.64.0.0", 10},  // of providers that share addresses
    {"169.254.0.0", 16}, {"127.0.0.0", 8},
};
constexpr std::string_view HOME_DOMAINS[] = {".local", ".lan", ".home", ".internal", ".localhost"};

bool is_name_byte(unsigned char byte) {
  return std::isalnum(byte) != 0 || byte == '.' || byte == '-' || byte == '_';
}

bool is_in(const in_addr& address, const Range& range) {
  in_addr first{};
  const uint32_t mask = ~uint32_t{0} << (32 - range.bits);
  return parse_address(range.first, first) &&
         (ntohl(address.s_addr) & mask) == (ntohl(first.s_addr) & mask);
}

// Of one link, of one site, or of this host.
bool is_private(const in6_addr& address) {
  const unsigned char first = address.s6_addr[0];
  return IN6_IS_ADDR_LINKLOCAL(&address) || IN6_IS_ADDR_LOOPBACK(&address) ||
         (first & 0xfeU) == 0xfcU;
}

std::string in_small_letters(std::string text) {
  std::ranges::transform(text, text.begin(),
                         [](unsigned char byte) { return static_cast<char>(std::tolower(byte)); });
  return text;
}

}  // namespace

std::string public_address() {
  std::string text;
  if (access(FILE_NAME, F_OK) != 0 || !read_file(FILE_NAME, text)) return {};
  return is_host(trim(text)) ? text : std::string();
}

int store_public_address(const std::string& address) {
  if (address.empty()) return unlink(FILE_NAME) == 0 || errno == ENOENT ? NO_ERROR : ERR_SAVE_FILE;
  if (!is_host(address)) return ERR_VALUE;
  mkdir(FOLDER, FOLDER_MODE);
  return replace_file(FILE_NAME, address + '\n', FILE_MODE) ? NO_ERROR : ERR_SAVE_FILE;
}

bool is_host(const std::string& text) {
  in6_addr address{};
  if (inet_pton(AF_INET6, text.c_str(), &address) == 1) return true;
  return !text.empty() && text.size() <= LONGEST && text.front() != '-' &&
         std::ranges::all_of(text, is_name_byte);
}

bool works_at_home_only(const std::string& host) {
  in_addr address{};
  if (parse_address(host, address))
    return std::ranges::any_of(PRIVATE, [&](const Range& each) { return is_in(address, each); });
  in6_addr long_address{};
  if (inet_pton(AF_INET6, host.c_str(), &long_address) == 1) return is_private(long_address);
  const std::string name = in_small_letters(host);
  return name.find('.') == std::string::npos ||
         std::ranges::any_of(HOME_DOMAINS,
                             [&](std::string_view domain) { return name.ends_with(domain); });
}

}  // namespace ormel::system
