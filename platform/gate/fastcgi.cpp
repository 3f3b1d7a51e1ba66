#include "gate/fastcgi.h"

#include <algorithm>
#include <optional>

namespace fenro::gate {
namespace {

constexpr std::size_t HEADER = 8;
constexpr unsigned char VERSION = 1;
constexpr unsigned char RESPONDER = 1;
constexpr std::size_t BEGIN_BODY = 8;
constexpr std::size_t LONGEST_CONTENT = 0xffff;

enum Type : unsigned char { BEGIN_REQUEST = 1, END_REQUEST = 3, PARAMS = 4, STDIN = 5, STDOUT = 6 };

unsigned byte_at(std::string_view text, std::size_t at) {
  return static_cast<unsigned char>(text[at]);
}

std::string record(Type type, std::uint16_t id, std::string_view content) {
  const char header[HEADER] = {static_cast<char>(VERSION),
                               static_cast<char>(type),
                               static_cast<char>(id >> 8U),
                               static_cast<char>(id & 0xffU),
                               static_cast<char>(content.size() >> 8U),
                               static_cast<char>(content.size() & 0xffU),
                               0,
                               0};
  return std::string{header, HEADER}.append(content);
}

// Takes the length of a name or value off the front: one byte, or four if the first bit is set.
std::optional<std::size_t> take_length(std::string_view& text) {
  constexpr unsigned LONG = 0x80;
  constexpr std::size_t LONG_SIZE = 4;
  if (text.empty()) return {};
  const unsigned first = byte_at(text, 0);
  if (first < LONG) {
    text.remove_prefix(1);
    return first;
  }
  if (text.size() < LONG_SIZE) return {};
  const std::size_t length = ((first & ~LONG) << 24U) | (byte_at(text, 1) << 16U) |
                             (byte_at(text, 2) << 8U) | byte_at(text, 3);
  text.remove_prefix(LONG_SIZE);
  return length;
}

}  // namespace

struct Request::Record {
  unsigned type;
  std::uint16_t id;
  std::size_t begin;  // of its content
  std::string_view content;
};

Request::State Request::feed(std::string_view bytes) {
  bytes_ += bytes;
  while (state_ < State::Whole && bytes_.size() - at_ >= HEADER) {
    const std::string_view rest = std::string_view{bytes_}.substr(at_);
    if (byte_at(rest, 0) != VERSION) return state_ = State::Malformed;
    const std::size_t length = (byte_at(rest, 4) << 8U) | byte_at(rest, 5);
    const std::size_t whole = HEADER + length + byte_at(rest, 6);
    if (rest.size() < whole) break;
    const auto id = static_cast<std::uint16_t>((byte_at(rest, 2) << 8U) | byte_at(rest, 3));
    const Record next{byte_at(rest, 1), id, at_ + HEADER, rest.substr(HEADER, length)};
    if (!take(next)) return state_ = State::Malformed;
    at_ += whole;
  }
  return state_;
}

bool Request::take(const Record& record) {
  if (record.type == BEGIN_REQUEST) {
    if (id_ != 0 || record.id == 0 || record.content.size() != BEGIN_BODY) return false;
    id_ = record.id;
    return byte_at(record.content, 1) == RESPONDER;
  }
  if (record.id != id_ || id_ == 0) return false;
  if (record.type == PARAMS && state_ == State::Head) {
    if (record.content.empty()) return take_head_end();
    head_ += record.content;
    return head_.size() <= HEAD_LIMIT;
  }
  if (record.type != STDIN || state_ != State::Body) return false;
  if (record.content.empty()) state_ = State::Whole;
  body_.emplace_back(record.begin, record.content.size());
  body_size_ += record.content.size();
  return true;
}

bool Request::take_head_end() {
  std::string_view rest = head_;
  while (!rest.empty()) {
    const auto name = take_length(rest);
    const auto value = name ? take_length(rest) : name;
    if (!value || *name > rest.size() || *value > rest.size() - *name) return false;
    variables_.emplace_back(rest.substr(0, *name), rest.substr(*name, *value));
    rest.remove_prefix(*name + *value);
  }
  head_end_ = at_;
  state_ = State::Body;
  return true;
}

std::string_view Request::variable(std::string_view name) const {
  const auto found = std::find_if(variables_.begin(), variables_.end(),
                                  [name](const auto& pair) { return pair.first == name; });
  return found == variables_.end() ? std::string_view{} : found->second;
}

std::string Request::body() const {
  std::string text;
  text.reserve(body_size_);
  for (const auto& [begin, length] : body_) text.append(bytes_, begin, length);
  return text;
}

std::string Request::release() {
  constexpr std::string_view LENGTH = "CONTENT_LENGTH";
  if (variable(LENGTH).empty() && body_size_ > 0) {
    const std::string value = std::to_string(body_size_);
    const char lengths[] = {static_cast<char>(LENGTH.size()), static_cast<char>(value.size())};
    bytes_.insert(head_end_,
                  record(PARAMS, id_, std::string{lengths, sizeof lengths}.append(LENGTH) + value));
  }
  body_.clear();
  return std::exchange(bytes_, {});
}

std::string Request::refusal(std::string_view status, std::string_view text,
                             int retry_after) const {
  std::string answer{"Status: "};
  answer.append(status).append("\r\nContent-Type: text/plain; charset=utf-8\r\n");
  if (retry_after > 0)
    answer.append("Retry-After: ").append(std::to_string(retry_after)).append("\r\n");
  answer.append("\r\n").append(text).append("\n");
  answer.resize(std::min(answer.size(), LONGEST_CONTENT));
  const std::uint16_t id = id_ == 0 ? 1 : id_;
  return record(STDOUT, id, answer) + record(STDOUT, id, {}) +
         record(END_REQUEST, id, std::string_view{"\0\0\0\0\0\0\0\0", 8});
}

}  // namespace fenro::gate
