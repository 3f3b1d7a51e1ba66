// The service "KeeperService": "keeper.show", and the targets of notifications.
#pragma once

#include "daemons/keeper/notifier.h"
#include "daemons/keeper/watch.h"
#include "libmibservice/mibserver.h"

namespace fenro::keeper {

// Replies are {"error":CODE,"data":…}, in which a code above 0 comes with "reason", a sentence.
//
//   keeper.show            all that is wanted: section, name, state, since, restarts, reason
//   notify.list            targets without their secrets, with the outcome of the last delivery
//   notify.set NAME…       {"name","url","events","secret"}: a new webhook without a secret gets one, which is returned
//   once notify.remove          {"name"} notify.test            {"name"}: {"test":NUMBER}, whose outcome notify.result
//   tells notify.result          {"test":NUMBER}: {"done":…}
void serve(bus::Server& server, const Watch& watch, Notifier& notifier);

}  // namespace fenro::keeper
