#include "base/random_name.h"

#include <cerrno>
#include <sys/random.h>

namespace fenro {

bool random_name(std::string& name) {
  // Bytes above the last full round of the characters are thrown away, or the first ones would come
  // up more often.
  constexpr std::size_t FAIR = 256 / NAME_CHARACTERS.size() * NAME_CHARACTERS.size();
  for (std::size_t i = 0; i < name.size();) {
    unsigned char byte = 0;
    const ssize_t n = getrandom(&byte, sizeof byte, 0);
    if (n < 0 && errno != EINTR) return false;
    if (n == 1 && byte < FAIR) name[i++] = NAME_CHARACTERS[byte % NAME_CHARACTERS.size()];
  }
  return true;
}

}  // namespace fenro
