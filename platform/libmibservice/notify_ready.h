// Tells the service manager that started this process that the daemon is ready to serve.
#pragma once

namespace fenro::bus {

// Does nothing where no manager waits for it.
void notify_ready();

}  // namespace fenro::bus
