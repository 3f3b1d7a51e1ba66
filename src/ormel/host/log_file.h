// The place of the diagnostic log.
#pragma once

namespace ormel::system {

// Moves the log to the folder of the installed package, if "/etc/config/pakrix.conf" names one that
// gives a path which fits; the path stays as it is otherwise.
void set_log_file_wrapper();

}  // namespace ormel::system
