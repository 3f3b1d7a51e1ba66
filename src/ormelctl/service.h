// What the commands ask of the program: its records, its routes, and one lock for all changes.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/types.h"
#include "ormel/base/handle.h"
#include "ormel/base/json.h"
#include "ormel/config/pool.h"

namespace ormelctl {

using Form = std::vector<std::pair<std::string, std::string>>;

// The answer of a route.
struct Reply {
  int error = 0;         // code of the program
  std::string reason{};  // its text, empty on success
  ormel::Json root{};    // the whole answer; null for a file
  std::string text{};    // a file as it was sent, with its head

  [[nodiscard]] json_t* data() const { return json_object_get(root.get(), "data"); }
};

// Runs a route of the web program within this process, as an administrator.
[[nodiscard]] Reply call(std::string_view path, const Form& form = {});

// The records of vpn.conf as they are now, for the types in `mask`: each as /ormel/config/show
// returns it, with its state, since when and the reason as "tunnel".
[[nodiscard]] ormel::Json records(int mask);

// Runs an action of the command line on the locked pool. `words` are its options without the
// program's name. The profile that it shows is in the reply's data.
[[nodiscard]] Reply act(const std::vector<std::string>& words);

// From now on, locks that are waited for for two seconds are named on standard error.
void say_long_waits();

// Holds back all other changes by this tool. False when another run has held the lock for ten
// seconds.
class ChangeLock {
 public:
  ChangeLock();
  explicit operator bool() const { return static_cast<bool>(fd_); }

 private:
  ormel::Fd fd_;
};

// A protocol by its name on this command line.
struct Protocol {
  std::string name;  // "openvpn"
  ormel::TYPE server, client;
  std::string server_word, client_word;  // what the option --type takes
  const char* script;                    // of the server
};
[[nodiscard]] const std::vector<Protocol>& protocols();
[[nodiscard]] const Protocol* find_protocol(std::string_view name);
[[nodiscard]] const Protocol* protocol_of(int type);
[[nodiscard]] std::string protocol_names();  // "pptp, l2tp, …"

// URL encoding, as names are stored.
[[nodiscard]] std::string encoded(const std::string& text);
[[nodiscard]] std::string decoded(const std::string& text);

[[nodiscard]] std::string text_of(const json_t* object, const char* key);
[[nodiscard]] long number_of(const json_t* object, const char* key);

// A secret from a file, or from standard input for "-", without its line end. Nothing when it
// cannot be read, or holds a line break or a NUL.
[[nodiscard]] std::optional<std::string> read_secret(const std::string& path);
// Asks on the terminal without an echo. Nothing without a terminal.
[[nodiscard]] std::optional<std::string> ask_secret(const std::string& prompt);

// Calls `test` every 200 ms until it is true or the time is over. Whether it became true.
[[nodiscard]] bool comes_true(const std::function<bool()>& test, long seconds);

}  // namespace ormelctl
