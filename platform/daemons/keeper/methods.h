// The service "KeeperService": "keeper.show", and the targets of notifications.
#pragma once

#include "daemons/keeper/notifier.h"
#include "daemons/keeper/recent.h"
#include "daemons/keeper/watch.h"
#include "libmibservice/mibserver.h"

namespace fenro::keeper {

// Replies are {"error":CODE,"data":…}, in which a code above 0 comes with "reason", a sentence.
//
//   keeper.show      all that is wanted: section, name, state, since, restarts, reason
//   keeper.report    {"kind","level","subject","text"}: notifies of an event that is in the log
//   notify.kinds     the kinds of events, with a text for each
//   notify.recent    the latest reports, newest first
//   notify.list      targets without their secrets, with the outcome of the last delivery
//   notify.set       {"name","url","events","secret"}: a new webhook without a secret gets one
//   notify.remove    {"name"}
//   notify.test      {"name"}: {"test":NUMBER}
//   notify.result    {"test":NUMBER}: {"done":…} and the outcome of that test
//
// The secret that "notify.set" has made is returned once, and by it alone.
void serve(bus::Server& server, const Watch& watch, Notifier& notifier, Recent& recent);

}  // namespace fenro::keeper
