// Notifies the service manager that started this process that the daemon is ready.
#pragma once

namespace fenro::bus {

// Does nothing without such a manager.
void notify_ready();

}  // namespace fenro::bus
