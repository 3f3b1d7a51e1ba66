// The packets of the probes as they travel.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace ormel::misc {

struct ICMP_HEADER {
  uint8_t type;
  uint8_t code;
  uint16_t checksum;
  uint16_t id;
  uint16_t sequence;
};

struct ICMP_PACKET {
  ICMP_HEADER hdr;
  uint32_t time_stamp;  // seconds since the epoch, as far as they fit
  char msg[52];
};
static_assert(sizeof(ICMP_PACKET) == 64);

// As RFC 1035 has it, the bits of each byte from the lowest on.
struct DNS_HEADER {
  uint16_t id;
  uint8_t rd : 1, tc : 1, aa : 1, opcode : 4, qr : 1;
  uint8_t rcode : 4, cd : 1, ad : 1, z : 1, ra : 1;
  uint16_t q_count;
  uint16_t ans_count;
  uint16_t auth_count;
  uint16_t add_count;
};
static_assert(sizeof(DNS_HEADER) == 12 && offsetof(DNS_HEADER, q_count) == 4);

enum DNS_TYPE : uint16_t {
  DNS_TYPE_A = 1,
  DNS_TYPE_NS = 2,
  DNS_TYPE_MD = 3,
  DNS_TYPE_MF = 4,
  DNS_TYPE_CNAME = 5,
  DNS_TYPE_SOA = 6,
  DNS_TYPE_MB = 7,
  DNS_TYPE_MG = 8,
  DNS_TYPE_MR = 9,
  DNS_TYPE_NULL = 10,
  DNS_TYPE_WKS = 11,
  DNS_TYPE_PTR = 12,
  DNS_TYPE_HINFO = 13,
  DNS_TYPE_MINFO = 14,
  DNS_TYPE_MX = 15,
  DNS_TYPE_TXT = 16,
};

// An echo request, checksum included; `id` goes out as it is in memory.
[[nodiscard]] ICMP_PACKET echo_request(uint16_t id, uint32_t now);

// The Internet checksum over the whole packet: 0 for one that holds its own.
[[nodiscard]] uint16_t checksum(const ICMP_PACKET& packet);

// A query for the name servers of `server`, whose text is cut at 63 bytes. Any answer means that
// the server is alive.
[[nodiscard]] std::string name_server_query(uint16_t id, std::string_view server);

// Whether it is long enough for a header and repeats a question, as every answer does.
[[nodiscard]] bool holds_question(std::string_view answer);

}  // namespace ormel::misc
