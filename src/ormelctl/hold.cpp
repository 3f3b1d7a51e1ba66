// Who is kept out of the servers.
#include "ormel/base/error.h"
#include "ormelctl/advice.h"
#include "ormelctl/command.h"
#include "ormelctl/service.h"

namespace ormelctl {

namespace {

const Columns HOLD_COLUMNS = {
    {"name", "WHO"}, {"kind_text", "KIND"}, {"until_text", "UNTIL"}, {"by", "BY"}};

}  // namespace

Result hold_list(const Arguments&) {
  const Reply reply = call("/ormel/hold/list");
  if (reply.error != 0) return failed(reply.error, reply.reason);
  ormel::Json rows{json_incref(reply.data())};
  size_t at = 0;
  json_t* row = nullptr;
  json_array_foreach(rows.get(), at, row) {
    const bool device = text_of(row, "kind") == "peer";
    json_object_set_new(row, "kind_text", json_string(device ? "device" : "user"));
    json_object_set_new(row, "until_text",
                        json_string(moment_text(number_of(row, "until")).c_str()));
  }
  const bool none = json_array_size(rows.get()) == 0;
  return done(none ? "No one is kept out." : "", std::move(rows), HOLD_COLUMNS);
}

Result hold_lift(const Arguments& arguments) {
  const std::string& who = arguments.words[0];
  const Reply reply = call("/ormel/hold/lift", {{"who", who}});
  if (reply.error == ormel::ERR_CONFIGURE_INDEX) {
    const Reply holds = call("/ormel/hold/list");
    return failed(Exit::NotFound, who + " is not kept out",
                  did_you_mean(who, names_in(holds.data(), "name"), "ormelctl hold list"));
  }
  return reply.error != 0 ? failed(reply.error, reply.reason) : done(who + " may come in again");
}

}  // namespace ormelctl
