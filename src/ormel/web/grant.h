// Until when users may use the servers, and their own devices (base/grants.h).
//
// The end of a right is kept until the keeper has seen that the right is gone: a run of the program
// that read the rights earlier may write them again.
#pragma once

#include <ctime>
#include <string>

#include "base/grants.h"

namespace ormel::cgi::grant {

// After a user's rights were stored: removes the ends of revoked rights, and past ends of new ones.
// Failures are logged.
void on_rights(const std::string& user, int before, int after);
// After all rights of a user were revoked: the user's own devices are kept out, too.
void on_revocation(const std::string& user);
// After a device has got another key, or was removed (an empty one).
void on_key(const std::string& old_key, const std::string& new_key);

// Removes past ends of rights that a user does not have, and ends the use of own devices if theirs
// is past. False when that could not be stored.
[[nodiscard]] bool forget_ended(const std::string& user, int rights,
                                std::time_t now = std::time(nullptr));

// The name that a limit of a device has as its source when it comes from a grant.
constexpr const char* END_OF_ACCESS = "end of access";

// Limits a user's own devices to their end, or lifts that limit. Limits that an administrator has
// set stay. False when one could not be changed.
[[nodiscard]] bool apply_limits(const fenro::GrantBook& book, const std::string& user);

// Lifts the limit of a device that came from the end of its owner's access, once it has no owner
// any more. False when it could not be lifted.
[[nodiscard]] bool lift_end(const std::string& key);

}  // namespace ormel::cgi::grant
