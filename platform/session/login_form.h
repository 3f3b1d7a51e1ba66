// The form of a login. The text and the values parsed from it are wiped with it: no buffer of a
// stream, no copy of a growing string keeps a password.
#pragma once

#include <array>
#include <cstddef>
#include <memory>
#include <string_view>

#include "ormel/cgi/cgi.h"

namespace fenro {

class LoginForm {
 public:
  static constexpr std::size_t LIMIT = 8192;
  enum class Result { Ok, TooLarge, Malformed };

  LoginForm() = default;
  LoginForm(const LoginForm&) = delete;
  LoginForm& operator=(const LoginForm&) = delete;
  ~LoginForm() { wipe(); }

  // Reads a body of the announced length, or to its end where none is announced.
  [[nodiscard]] Result read(int fd, std::string_view content_length);
  [[nodiscard]] Result take(std::string_view query);

  // The last value of that name; "" when there is none.
  [[nodiscard]] const char* value(const char* name) const;

  // Clears the text and all values; the fields stay, empty.
  void wipe();

 private:
  [[nodiscard]] Result parse();

  std::array<char, LIMIT + 1> bytes_{};  // one more than may come
  std::size_t size_ = 0;
  std::unique_ptr<cgi_var, FreeCgiVars> fields_{};
};

}  // namespace fenro
