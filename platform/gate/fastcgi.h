// One FastCGI request of a web server, collected until it is complete, and the refusals sent back.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace fenro::gate {

class Request {
 public:
  enum class State { Head, Body, Whole, Malformed };
  static constexpr std::size_t HEAD_LIMIT = std::size_t{64}
                                            << 10U;  // names and values of all variables

  // Takes the next bytes of the connection, split anywhere. Returns the new state.
  State feed(std::string_view bytes);

  [[nodiscard]] State state() const { return state_; }
  // Returns a variable of the request, or "" when it is missing or the state is `Head`.
  [[nodiscard]] std::string_view variable(std::string_view name) const;
  [[nodiscard]] std::size_t body_size() const { return body_size_; }
  [[nodiscard]] std::string body() const;
  // Returns the bytes held.
  [[nodiscard]] std::size_t size() const { return bytes_.size(); }

  // Returns the complete request to forward, and holds nothing afterwards. Adds CONTENT_LENGTH for
  // a body of unannounced length: the programs read no body without it.
  [[nodiscard]] std::string release();

  // Returns a complete FastCGI answer that refuses this request. `retry_after` is in seconds; 0
  // omits the header.
  [[nodiscard]] std::string refusal(std::string_view status, std::string_view text,
                                    int retry_after = 0) const;

 private:
  struct Record;
  [[nodiscard]] bool take(const Record& record);
  [[nodiscard]] bool take_head_end();

  std::string bytes_;
  std::size_t at_ = 0;        // offset of the next record
  std::size_t head_end_ = 0;  // offset of the record that ends the variables
  std::uint16_t id_ = 0;
  State state_ = State::Head;
  std::string head_;
  std::vector<std::pair<std::string, std::string>> variables_;
  std::vector<std::pair<std::size_t, std::size_t>> body_;  // offsets and lengths of its pieces
  std::size_t body_size_ = 0;
};

}  // namespace fenro::gate
