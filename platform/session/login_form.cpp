#include "session/login_form.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstring>
#include <poll.h>
#include <unistd.h>

namespace fenro {
namespace {

constexpr int PATIENCE_MS = 15'000;  // for a client that stops in the middle
constexpr std::size_t MOST_DISCARDED = std::size_t{4} << 20U;
constexpr std::chrono::seconds DISCARD_TIME{2};  // in all: the answer waits meanwhile

ssize_t read_some(int fd, char* bytes, std::size_t size, int patience_ms = PATIENCE_MS) {
  pollfd ready{fd, POLLIN, 0};
  if (poll(&ready, 1, patience_ms) == 0) return 0;
  return read(fd, bytes, size);
}

// "%41" at the front of the text as a byte, or -1.
int escaped(std::string_view text) {
  constexpr std::size_t LENGTH = 3;
  constexpr int HEXADECIMAL = 16;
  unsigned char byte = 0;
  if (text.size() < LENGTH || text[0] != '%') return -1;
  const auto [end, error] = std::from_chars(text.data() + 1, text.data() + LENGTH, byte, HEXADECIMAL);
  return error == std::errc{} && end == text.data() + LENGTH ? byte : -1;
}

}  // namespace

LoginForm::Result LoginForm::read(int fd, std::string_view content_length) {
  std::size_t wanted = LIMIT + 1;
  if (!content_length.empty()) {
    const char* const last = content_length.data() + content_length.size();
    const auto [end, error] = std::from_chars(content_length.data(), last, wanted);
    if (error == std::errc::invalid_argument || end != last) return Result::Malformed;
    if (error == std::errc::result_out_of_range || wanted > LIMIT) return Result::TooLarge;
  }
  while (size_ < wanted) {
    const ssize_t n = read_some(fd, bytes_.data() + size_, wanted - size_);
    if (n < 0 && errno != EINTR) return Result::Malformed;
    if (n == 0) break;
    if (n > 0) size_ += static_cast<std::size_t>(n);
  }
  if (size_ > LIMIT) return Result::TooLarge;
  return !content_length.empty() && size_ < wanted ? Result::Malformed : parse();
}

LoginForm::Result LoginForm::take(std::string_view query) {
  if (query.size() > LIMIT) return Result::TooLarge;
  size_ = query.copy(bytes_.data(), LIMIT);
  return parse();
}

LoginForm::Result LoginForm::parse() {
  std::size_t at = 0;
  while (at < size_) {
    const std::size_t name = at;
    if (!decode(at, "=&")) return Result::Malformed;
    const bool has_value = bytes_[at] == '=';
    bytes_[at++] = '\0';
    const std::size_t value = has_value ? at : at - 1;
    if (has_value) {
      if (!decode(at, "&")) return Result::Malformed;
      bytes_[at++] = '\0';
    }
    fields_.push_back({bytes_.data() + name, bytes_.data() + value});
  }
  return Result::Ok;
}

bool LoginForm::decode(std::size_t& at, std::string_view marks) {
  std::size_t to = at;
  while (at < size_ && marks.find(bytes_[at]) == std::string_view::npos) {
    const int byte = escaped({bytes_.data() + at, size_ - at});
    const char plain = bytes_[at] == '+' ? ' ' : bytes_[at];
    bytes_[to] = byte >= 0 ? static_cast<char>(byte) : plain;
    if (bytes_[to++] == '\0') return false;
    at += byte >= 0 ? 3 : 1;
  }
  if (to < at) std::memset(bytes_.data() + to, 0, at - to);
  return true;
}

const char* LoginForm::value(std::string_view name) const {
  const auto found = std::find_if(fields_.rbegin(), fields_.rend(), [name](const Field& f) { return f.name == name; });
  return found == fields_.rend() ? "" : found->value;
}

void LoginForm::wipe() {
  explicit_bzero(bytes_.data(), bytes_.size());
  fields_.clear();
  size_ = 0;
}

void LoginForm::discard(int fd) {
  const auto end = std::chrono::steady_clock::now() + DISCARD_TIME;
  std::array<char, 4096> piece{};
  for (std::size_t done = 0; done < MOST_DISCARDED;) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
    if (left.count() <= 0) break;
    const ssize_t n = read_some(fd, piece.data(), piece.size(), static_cast<int>(left.count()));
    if (n <= 0) break;
    done += static_cast<std::size_t>(n);
  }
  explicit_bzero(piece.data(), piece.size());
}

}  // namespace fenro
