// Accounts of the host, as its name service knows them.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

namespace fenro {

struct User {
  uid_t uid;
  gid_t gid;  // primary group
};

[[nodiscard]] std::optional<User> find_user(const char* name);

enum class Source { Local, Ldap, Domain };

// Where a name that the name service enumerates comes from: local ones are in the passwd file,
// those of a domain are marked in the name itself.
[[nodiscard]] Source source_of(const std::string& name, const std::vector<std::string>& local);

// The names of a file of the form of /etc/passwd, sorted.
[[nodiscard]] std::vector<std::string> users_of_file(const char* passwd);

// Those of the accounts in such a file that people log in with: numbers from `least` on, with a
// shell that takes a login.
[[nodiscard]] std::vector<std::string> people_of_file(const char* passwd, uid_t least);

// The least number of an account of a person, from the settings of the host's account tools; 1000
// without them.
[[nodiscard]] uid_t least_person(std::string_view login_defs);

// All names of one source, sorted. Of the local accounts those that people log in with.
[[nodiscard]] std::vector<std::string> users_of(Source source);

// Whether the passwd line of the name service's settings asks a directory.
[[nodiscard]] bool asks_directory(std::string_view nsswitch);

// Whether the name service asks the host's own files before all else, and takes what they say.
// `database` is as its settings have it: "passwd:".
[[nodiscard]] bool asks_files_first(std::string_view nsswitch, std::string_view database);

// The rest of the line of that name in a file of the form of /etc/passwd; empty without one.
[[nodiscard]] std::string_view line_of(std::string_view text, std::string_view name);

// The rows `lower` to `upper` of the names that contain `filter`; `total` takes how many do.
[[nodiscard]] std::vector<std::string> page_of(std::vector<std::string> names, int lower, int upper,
                                               std::string_view filter, int& total);

}  // namespace fenro
