#include "session/login_form.h"

#include <cerrno>
#include <charconv>
#include <cstring>
#include <poll.h>
#include <unistd.h>
#include <utility>

#include "ormel/cgi/cgi_parser.h"
#include "ormel/cgi/formpart.h"

namespace fenro {
namespace {

constexpr int PATIENCE_MS = 15'000;  // for a client that stops in the middle

ssize_t read_some(int fd, char* bytes, std::size_t size) {
  pollfd ready{fd, POLLIN, 0};
  if (poll(&ready, 1, PATIENCE_MS) == 0) return 0;
  return read(fd, bytes, size);
}

// Without a template the parser makes no file of an upload. All values of a name stay, so that each
// can be wiped.
constexpr cgi_settings SETTINGS{.fstream = -1,
                                .var_mode = MULTIPLE_VAR_MODE,
                                .upload_tempname = "",
                                .upload_limit = 1,
                                .buffer_size = 1};

// A NUL, plain or encoded: a value would look shorter than it is.
bool holds_nul(std::string_view text) {
  return text.find('\0') != std::string_view::npos || text.find("%00") != std::string_view::npos;
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
  const std::string_view text{bytes_.data(), size_};
  if (holds_nul(text)) return Result::Malformed;
  cgi_parser parser{SETTINGS};
  formpart_parser state;
  // In one piece, so that a value gets its memory once and no shorter copy of it is left behind.
  const bool whole = parser.var_list &&
                     formpart_parser_execute(&parser, &state, text.data(), size_) == size_ &&
                     formpart_parser_execute(&parser, &state, "&", 1) == 1;
  fields_.reset(std::exchange(parser.var_list, nullptr));
  return whole ? Result::Ok : Result::Malformed;
}

const char* LoginForm::value(const char* name) const {
  cgi_var* var = get_cgi_var(fields_.get(), name);
  const char* const text = get_cgi_var_value(var ? var->list_tail : nullptr);
  return text ? text : "";
}

void LoginForm::wipe() {
  explicit_bzero(bytes_.data(), bytes_.size());
  for (cgi_var* field = fields_.get(); field; field = field->next) {
    for (cgi_var* var = field; var; var = var->list) {
      if (var->value) explicit_bzero(var->value, var->length);
    }
  }
  size_ = 0;
}

}  // namespace fenro
