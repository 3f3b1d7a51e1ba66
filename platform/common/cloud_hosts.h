// Which host each of the cloud's services is on.
#pragma once

#include <string>

namespace fenro {

enum class CloudService { ORGANIZATIONS, ACCOUNTS, LOGINS, PELMAR };

// Returns the base URL of a service, without a slash at its end, for the environment and the cloud
// in the appliance's settings. An unknown environment counts as production. Empty for a service
// that this cloud does not have.
[[nodiscard]] std::string cloud_base(CloudService service);

}  // namespace fenro
