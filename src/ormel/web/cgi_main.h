// The `ormel.cgi` personality: one web request, found in the route table and answered by its
// handler.
#pragma once

#include <string>
#include <string_view>

namespace ormel::cgi {

// The personality. The code of the answer.
int main(int argc, char** argv);

// Runs a route for a local administrator within this process, without a session: `query` is the
// URL-encoded form. Returns what a web server would be sent, head included; the "not found" answer
// for an unknown route. Loads no pool.
[[nodiscard]] std::string call(std::string_view path, const std::string& query);

}  // namespace ormel::cgi
