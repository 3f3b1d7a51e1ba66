#include "ormel/drivers/wireguard/device.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cctype>
#include <set>
#include <sys/random.h>

#include "base/base64.h"
#include "ormel/base/address.h"

namespace ormel::wireguard {

namespace {

constexpr int LEAST_MASK = 16;  // bits: no walk over more addresses than that
constexpr int BITS = 32;
constexpr size_t KEY_SIZE = 32;  // bytes

// An address as a number; 0 for any other text.
uint32_t number_of(const std::string& address) {
  in_addr parsed{};
  return inet_pton(AF_INET, address.c_str(), &parsed) == 1 ? ntohl(parsed.s_addr) : 0;
}

std::string text_of(uint32_t number) {
  const in_addr address{htonl(number)};
  char text[INET_ADDRSTRLEN] = "";
  return inet_ntop(AF_INET, &address, text, sizeof text) ? text : "";
}

// The first address of a network.
uint32_t network_of(uint32_t address, int mask) {
  const int host_bits = BITS - mask;
  return address >> host_bits << host_bits;
}

}  // namespace

std::string free_address(const PeerFile& peers, const std::string& server_ip, int server_mask) {
  const uint32_t own = number_of(server_ip);
  if (own == 0 || server_mask > BITS - 2) return {};
  std::set<uint32_t> taken{own};
  for (int index = 1; index <= peers.max_index(); ++index)
    taken.insert(number_of(peers.peer(index).allow_ip));
  const int mask = std::max(server_mask, LEAST_MASK);
  const uint32_t first = network_of(own, mask);
  const uint32_t last = first + (1U << (BITS - mask)) - 1;
  for (uint32_t address = first + 1; address < last; ++address) {
    if (!taken.contains(address)) return text_of(address);
  }
  return {};
}

std::string make_psk() {
  char bytes[KEY_SIZE];
  if (getrandom(bytes, sizeof bytes, 0) != static_cast<ssize_t>(sizeof bytes)) return {};
  return fenro::to_base64({bytes, sizeof bytes});
}

std::string encoded_name(const std::string& name) {
  constexpr char DIGITS[] = "0123456789ABCDEF";
  constexpr unsigned HALF = 4;
  std::string text;
  for (const char c : name) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x80 && std::isalnum(byte) != 0) {
      text += c;
    } else {
      text += {'%', DIGITS[byte >> HALF], DIGITS[byte & 0x0fU]};
    }
  }
  return text;
}

std::string configuration(const Hub& hub, const Device& device) {
  const std::string network =
      text_of(network_of(number_of(hub.ip), hub.mask)) + '/' + std::to_string(hub.mask);
  std::string text =
      "[Interface]\nPrivateKey = " + device.private_key + "\nAddress = " + device.address + "/32\n";
  if (!hub.dns.empty()) text += "DNS = " + hub.dns + '\n';
  text += "\n[Peer]\nPublicKey = " + hub.key + '\n';
  if (!device.psk.empty()) text += "PresharedKey = " + device.psk + '\n';
  text += "AllowedIPs = " + (device.all ? std::string("0.0.0.0/0") : network) + '\n';
  const std::string end = hub.host.find(':') == std::string::npos ? hub.host : '[' + hub.host + ']';
  return text + "Endpoint = " + end + ':' + std::to_string(hub.port) +
         "\nPersistentKeepalive = 25\n";
}

}  // namespace ormel::wireguard
