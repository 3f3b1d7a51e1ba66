// Until when users may use the servers, and the devices that are their own (base/grants.h).
//
// The end of a right outlives the right itself until the keeper has seen that it is gone: a run of
// the program that has read the rights before may write them once more.
#pragma once

#include <ctime>
#include <string>

#include "base/grants.h"

namespace ormel::cgi::grant {

// After a user's rights were stored: ends the grants of those that were revoked, and forgets ends
// in the past of those that are new. Failures are logged.
void on_rights(const std::string& user, int before, int after);
// After all rights of a user were revoked: the user's own devices are kept out, too.
void on_revocation(const std::string& user);
// After a device has got another key, or was removed (an empty one).
void on_key(const std::string& old_key, const std::string& new_key);

// Forgets the ends in the past of rights that a user does not have (any more), and ends the use of
// own devices whose time is over. False when that could not be stored.
[[nodiscard]] bool forget_ended(const std::string& user, int rights,
                                std::time_t now = std::time(nullptr));

// Who has asked for a limit that comes from a grant.
constexpr const char* END_OF_ACCESS = "end of access";

// Keeps a user's own devices out from when their time is over, or not at all. What an administrator
// has limited by hand stays so. False when one is not as it should be.
[[nodiscard]] bool apply_limits(const fenro::GrantBook& book, const std::string& user);

}  // namespace ormel::cgi::grant
