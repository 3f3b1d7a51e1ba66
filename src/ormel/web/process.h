// What a web request needs of its own process: open streams, an environment without secrets, and a
// clean end.
#pragma once

#include <string>

#include "ormel/cgi/cgi.h"

namespace ormel::cgi {

// A descriptor that the web server left closed would be taken by the next file that is opened.
void open_standard_streams();

// Ends the answer, which the web server takes for complete once both streams are closed. The kernel
// closes them only after it has taken the whole process down.
void end_answer();

// A variable of the environment, empty if it is missing.
[[nodiscard]] std::string environment(const char* name);

// Takes out of the environment what the web server put there and may hold a secret of the client,
// so that no program inherits it. The form of the address is kept, for `settings_with_query`.
void withhold_request();
// The header "Authorization" of the request, empty without one. Once only: nothing is kept.
[[nodiscard]] std::string take_authorization();
// Puts the form of the address back into the environment, for the parser, and gives the parser's
// settings.
[[nodiscard]] const cgi_settings& settings_with_query();

// While it lives a signal that ends the request deletes its uploads first.
class UploadsGuard {
 public:
  UploadsGuard();
  UploadsGuard(const UploadsGuard&) = delete;
  UploadsGuard& operator=(const UploadsGuard&) = delete;
  ~UploadsGuard();
};

// Some web servers start their programs with these blocked.
void unblock_signals();

}  // namespace ormel::cgi
