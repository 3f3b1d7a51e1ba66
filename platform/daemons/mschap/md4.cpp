#include "daemons/mschap/md4.h"

#include <bit>
#include <vector>

namespace fenro::mschap {
namespace {

using State = std::array<std::uint32_t, 4>;
using Words = std::array<std::uint32_t, 16>;
constexpr std::size_t CHUNK = 64;

struct Round {
  std::uint32_t (*mix)(std::uint32_t, std::uint32_t, std::uint32_t);
  std::uint32_t constant;
  std::array<std::uint8_t, 16> order;  // in which the words are taken
  std::array<int, 4> shifts;
};
constexpr Round ROUNDS[] = {
    {[](std::uint32_t x, std::uint32_t y, std::uint32_t z) { return (x & y) | (~x & z); },
     0,
     {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15},
     {3, 7, 11, 19}},
    {[](std::uint32_t x, std::uint32_t y, std::uint32_t z) { return (x & y) | (x & z) | (y & z); },
     0x5a827999,
     {0, 4, 8, 12, 1, 5, 9, 13, 2, 6, 10, 14, 3, 7, 11, 15},
     {3, 5, 9, 13}},
    {[](std::uint32_t x, std::uint32_t y, std::uint32_t z) { return x ^ y ^ z; },
     0x6ed9eba1,
     {0, 8, 4, 12, 2, 10, 6, 14, 1, 9, 5, 13, 3, 11, 7, 15},
     {3, 9, 11, 15}},
};

Words words_of(std::span<const std::uint8_t> chunk) {
  Words words{};
  for (std::size_t i = 0; i < CHUNK; ++i) words[i / 4] |= std::uint32_t{chunk[i]} << (8 * (i % 4));
  return words;
}

void digest_chunk(State& state, const Words& words) {
  auto [a, b, c, d] = state;
  for (const Round& round : ROUNDS) {
    for (std::size_t i = 0; i < 16; ++i) {
      const std::uint32_t sum = a + round.mix(b, c, d) + words[round.order[i]] + round.constant;
      a = d, d = c, c = b;
      b = std::rotl(sum, round.shifts[i % 4]);
    }
  }
  state = {state[0] + a, state[1] + b, state[2] + c, state[3] + d};
}

}  // namespace

Block<16> md4(std::span<const std::uint8_t> message) {
  std::vector<std::uint8_t> padded{message.begin(), message.end()};
  padded.push_back(0x80);
  while (padded.size() % CHUNK != CHUNK - 8) padded.push_back(0);
  const std::uint64_t bits = std::uint64_t{message.size()} * 8;
  for (int i = 0; i < 8; ++i) padded.push_back(static_cast<std::uint8_t>(bits >> (8 * i)));

  State state{0x67452301, 0xefcdab89, 0x98badcfe, 0x10325476};
  for (std::size_t at = 0; at < padded.size(); at += CHUNK)
    digest_chunk(state, words_of(std::span{padded}.subspan(at, CHUNK)));

  Block<16> digest{};
  for (std::size_t i = 0; i < digest.size(); ++i) digest[i] = static_cast<std::uint8_t>(state[i / 4] >> (8 * (i % 4)));
  return digest;
}

}  // namespace fenro::mschap
