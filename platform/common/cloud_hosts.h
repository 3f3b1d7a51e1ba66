// Which host each of the cloud's services is on.
#pragma once

#include <string>

namespace fenro {

enum class CloudService { ORGANIZATIONS, ACCOUNTS, LOGINS, PELMAR };

// The base of a service, without a slash behind it: the environment and the cloud that the
// appliance's settings name. An environment that nobody knows is production. Empty for one that
// this cloud does not have.
[[nodiscard]] std::string cloud_base(CloudService service);

}  // namespace fenro
