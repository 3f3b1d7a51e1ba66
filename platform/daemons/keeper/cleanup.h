// What a power cut leaves in files: profiles that look connected, and sessions in the list of live
// connections.
#pragma once

namespace fenro::keeper {

// Clears the live keys and marks of all client tunnels that do not run, and ends the sessions of
// servers that do not. The ends are in the connection log, too, where the log database answers
// within some seconds.
void clear_stale_state();

}  // namespace fenro::keeper
