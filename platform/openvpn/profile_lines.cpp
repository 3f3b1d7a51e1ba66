#include "openvpn/profile_lines.h"

#include <algorithm>
#include <tuple>
#include <utility>

namespace fenro::openvpn {

namespace {

constexpr std::string_view BYTE_ORDER_MARK = "\xEF\xBB\xBF";
constexpr std::string_view NAME_BYTES =
    "-_0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ";

// What isspace() says in the daemon's locale; the end of a line counts as well.
bool blank(char byte) {
  return byte == '\0' || byte == ' ' || (byte >= '\t' && byte <= '\r');
}

bool control(char byte) {
  const auto value = static_cast<unsigned char>(byte);
  return (value < ' ' && byte != '\t') || value == 0x7f;
}

bool has_control(std::string_view text) {
  return std::any_of(text.begin(), text.end(), control);
}

bool plain_name(std::string_view name) {
  return !name.empty() && name.find_first_not_of(NAME_BYTES) == std::string_view::npos;
}

class Splitter {
 public:
  explicit Splitter(std::vector<std::string>& words) : words_(words) {}

  // False where the line ends: at a comment, at enough words, or for a reason in `refusal`.
  bool take(char byte) {
    const bool escaped = std::exchange(escaped_, false);
    if (!escaped && byte == '\\' && state_ != State::SingleQuoted) return escaped_ = true;
    char out = byte;
    switch (state_) {
      case State::Between:
        if (blank(byte)) return true;
        if (byte == ';' || byte == '#') return false;
        state_ = State::Plain;
        if (!escaped && byte == '"') state_ = State::DoubleQuoted;
        if (!escaped && byte == '\'') state_ = State::SingleQuoted;
        if (state_ != State::Plain) return true;
        break;
      case State::Plain:
        if (!escaped && blank(byte)) return finish();
        break;
      case State::DoubleQuoted:
        if (!escaped && byte == '"') return finish();
        break;
      case State::SingleQuoted:
        if (byte == '\'') return finish();
        break;
    }
    if (out == '\0') return true;
    if (escaped && out != '\\' && out != '"' && !blank(out))
      return refuse("a backslash before a plain byte");
    if (word_.size() == MAX_WORD) return refuse("a word that is too long");
    word_ += out;
    return true;
  }

  [[nodiscard]] const char* end() const {
    if (refusal_ || state_ == State::Between) return refusal_;
    return state_ == State::Plain ? "a backslash at the end" : "a quotation without an end";
  }

 private:
  enum class State { Between, Plain, DoubleQuoted, SingleQuoted };

  bool finish() {
    state_ = State::Between;
    words_.push_back(std::exchange(word_, {}));
    return words_.size() < MAX_WORDS;
  }
  bool refuse(const char* why) {
    refusal_ = why;
    return false;
  }

  std::vector<std::string>& words_;
  std::string word_{};
  State state_ = State::Between;
  bool escaped_ = false;
  const char* refusal_ = nullptr;
};

class Reader {
 public:
  Reader(std::string_view text, std::size_t first) : rest_(text), number_(first - 1) {}

  ProfileText read() {
    if (number_ == 0 && rest_.starts_with(BYTE_ORDER_MARK))
      rest_.remove_prefix(BYTE_ORDER_MARK.size());
    for (std::string_view line; !result_.refusal && take_line(line);) read_line(line);
    return std::move(result_);
  }

 private:
  void refuse(const char* why) {
    result_.refusal = why;
    result_.refused_line = number_;
  }

  // The next line with its end.
  bool take_line(std::string_view& line) {
    if (rest_.empty()) return false;
    line = rest_.substr(0, std::min(rest_.find('\n'), rest_.size() - 1) + 1);
    rest_.remove_prefix(line.size());
    ++number_;
    std::string_view content = line;
    if (content.ends_with('\n')) content.remove_suffix(1);
    if (content.ends_with('\r')) content.remove_suffix(1);
    if (has_control(content)) refuse("a control byte");
    return !result_.refusal;
  }

  void read_line(std::string_view line) {
    if (line.size() > MAX_LINE) return refuse("a line that is too long");
    ProfileLine found{number_};
    if (const char* why = split_line(line, found.words)) return refuse(why);
    if (found.words.empty()) return;
    std::string& name = found.words[0];
    if (name.size() > 2 && name.starts_with("--")) name.erase(0, 2);
    if (found.words.size() == 1 && name.size() > 2 && name.starts_with('<') &&
        name.ends_with('>')) {
      name = name.substr(1, name.size() - 2);
      found.block = true;
      read_block(found);
    }
    if (!result_.refusal && !plain_name(name)) refuse("a name that no option has");
    for (const std::string& word : found.words)
      if (has_control(word)) refuse("a line's end within a word");
    if (!result_.refusal) result_.lines.push_back(std::move(found));
  }

  void read_block(ProfileLine& found) {
    const std::string closing = "</" + found.words[0] + ">";
    for (std::string_view line; take_line(line);) {
      std::string_view content = line;
      while (!content.empty() && blank(content[0])) content.remove_prefix(1);
      // The daemon takes no notice of what follows on the line, which so could not be distinguished
      // from it.
      if (content.starts_with(closing)) return;
      if (content.find('<') != std::string_view::npos) return refuse("a \"<\" within a block");
      found.body += line;
    }
    if (!result_.refusal) refuse("a block without an end");
  }

  std::string_view rest_;
  std::size_t number_;
  ProfileText result_{};
};

}  // namespace

const char* split_line(std::string_view line, std::vector<std::string>& words) {
  Splitter splitter(words);
  for (const char byte : line.substr(0, line.find('\0')))
    if (!splitter.take(byte)) return splitter.end();
  std::ignore = splitter.take('\0');
  return splitter.end();
}

ProfileText read_profile(std::string_view text, std::size_t first) {
  return Reader(text, first).read();
}

}  // namespace fenro::openvpn
