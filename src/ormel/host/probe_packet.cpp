#include "ormel/host/probe_packet.h"

#include <array>
#include <bit>
#include <cstring>
#include <netinet/in.h>
#include <netinet/ip_icmp.h>
#include <numeric>

namespace ormel::misc {

namespace {

constexpr char FIRST_FILLER = 8;
constexpr size_t NAME_MAX_BYTES = 63;
constexpr uint16_t CLASS_IN = 1;

static_assert(std::endian::native == std::endian::little,
              "the flags of DNS_HEADER lie as they travel");

// The parts between the points, each behind its length, and a zero at the end.
std::string labels(std::string_view name) {
  std::string out;
  for (size_t at = 0; at <= name.size();) {
    const std::string_view label = name.substr(at, name.find('.', at) - at);
    out += static_cast<char>(label.size());
    out += label;
    at += label.size() + 1;
  }
  return out += '\0';
}

template <typename Value>
void append(std::string& out, const Value& value) {
  out.append(reinterpret_cast<const char*>(&value), sizeof value);
}

}  // namespace

ICMP_PACKET echo_request(uint16_t id, uint32_t now) {
  ICMP_PACKET packet{{ICMP_ECHO, 0, 0, id, 0}, now, {}};
  std::iota(std::begin(packet.msg), std::end(packet.msg) - 1, FIRST_FILLER);
  packet.hdr.checksum = checksum(packet);
  return packet;
}

uint16_t checksum(const ICMP_PACKET& packet) {
  std::array<uint16_t, sizeof packet / sizeof(uint16_t)> words;
  std::memcpy(words.data(), &packet, sizeof packet);
  uint32_t sum = std::accumulate(words.begin(), words.end(), uint32_t{0});
  sum = (sum >> 16) + (sum & 0xffff);
  sum = (sum >> 16) + (sum & 0xffff);  // the first folding can carry once more
  return static_cast<uint16_t>(~sum);
}

std::string name_server_query(uint16_t id, std::string_view server) {
  DNS_HEADER header{};
  header.id = htons(id);
  header.rd = 1;
  header.q_count = htons(1);
  std::string query;
  append(query, header);
  query += labels(server.substr(0, NAME_MAX_BYTES));
  append(query, htons(DNS_TYPE_NS));
  append(query, htons(CLASS_IN));
  return query;
}

bool holds_question(std::string_view answer) {
  DNS_HEADER header{};
  if (answer.size() < sizeof header) return false;
  std::memcpy(&header, answer.data(), sizeof header);
  return header.q_count != 0;
}

}  // namespace ormel::misc
