// What the gate knows of the routes: which requests may run in parallel, and how large each may be.
#pragma once

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace fenro::gate {

class Request;

// Programs that run at once. fcgiwrap is started with as many processes, so no request waits there.
inline constexpr int PROGRAMS = 8;

// A class of requests that share a part of the programs.
struct Group {
  int at_once;
  int of_one_address;
  std::chrono::seconds patience;  // longest wait for a program
};

// Locks that a request holds from the start of its program to its end.
enum Lock : unsigned {
  NO_LOCK = 0,
  SLOTS = 1,    // allocates or frees a profile's slot
  PROFILE = 2,  // changes, connects or disconnects one profile
  ARCHIVE = 4,  // makes and sends the archive of the logs, whose path is fixed
  SAVE = 8,  // reads the profiles and writes them all back soon after its start; ends when the file
             // has changed
};

struct Rule {
  std::string_view path, method;  // an empty method matches any
  const Group* group;
  unsigned locks;
  std::size_t body_limit;
  std::chrono::seconds body_time;  // from the connection to the end of the body
};

[[nodiscard]] const Rule& rule_of(std::string_view path, std::string_view method);

// The profile that a request names.
struct Profile {
  std::string type;
  long index = 0;
};
[[nodiscard]] Profile profile_of(const Request& request);
// Returns whether both may be the same profile. A type has a name and a number, and only the
// program maps one to the other: a name and a number count as equal.
[[nodiscard]] bool may_be_same(const Profile& one, const Profile& other);

// Returns whether a form has more fields or uploads than a page or script ever sends. The program
// parses all of them before it can check the session.
[[nodiscard]] bool has_too_many_fields(const Request& request);

}  // namespace fenro::gate
