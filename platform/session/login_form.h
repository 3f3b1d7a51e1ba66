// The form of a login. It is read into one place of memory that is wiped with it: no buffer of a stream, no copy of a
// growing string keeps a password.
#pragma once

#include <array>
#include <cstddef>
#include <string_view>
#include <vector>

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
  [[nodiscard]] const char* value(std::string_view name) const;

  void wipe();

  // Reads on to the end of a body that is of no interest: a web server that is still writing it would take the end of
  // the program for a failure, and not pass its answer on. Gives up after two seconds.
  static void discard(int fd);

 private:
  struct Field {
    const char *name, *value;
  };

  [[nodiscard]] Result parse();
  // Decodes the text up to one of the marks into the place where it stands, and closes it with a NUL. False for a
  // NUL of its own, behind which a value would look shorter than it is.
  [[nodiscard]] bool decode(std::size_t& at, std::string_view marks);

  std::array<char, LIMIT + 2> bytes_{};  // one more than may come, and a NUL
  std::size_t size_ = 0;
  std::vector<Field> fields_{};
};

}  // namespace fenro
