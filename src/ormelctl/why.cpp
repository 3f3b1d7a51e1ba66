// Why something does not work: the reason of each tunnel and server, and what to do about it.
#include <algorithm>

#include "ormelctl/profile.h"

namespace ormelctl {
namespace {

bool has_reason(const json_t* row) {
  return json_is_object(json_object_get(row, "reason"));
}

std::string name_of(const json_t* row) {
  const std::string name = text_of(row, "name");
  return printable(name.empty() ? text_of(row, "protocol") + " server" : name);
}

// A line with the reason, what the daemon or the other end said, and what to do.
std::string explained(const json_t* row) {
  const json_t* reason = json_object_get(row, "reason");
  const std::string text = text_of(reason, "text");
  const std::string detail = text_of(reason, "detail");
  const std::string state = text_of(row, "state");
  std::string out = name_of(row) + ": " + painted(state, state);
  if (!has_reason(row)) return out + '\n';
  out += ", " + printable(text) + '\n';
  if (!detail.empty() && detail != text) out += "    " + printable(detail) + '\n';
  return out + "    -> " + printable(text_of(reason, "advice")) + '\n';
}

Result why_one(const std::string& wanted) {
  Result result;
  Profile profile;
  if (find_profile(wanted, profile, result)) {
    ormel::Json row = describe_profile(profile.record.get());
    const std::string text = explained(row.get());
    return done(text, std::move(row));
  }
  const Protocol* protocol = find_protocol(wanted);
  if (result.exit != Exit::NotFound) return result;
  if (!protocol) return no_profile_or_server(wanted);
  const ormel::Json rows = server_rows();
  size_t at = 0;
  json_t* row = nullptr;
  json_array_foreach(rows.get(), at, row) {
    if (text_of(row, "protocol") == protocol->name)
      return done(explained(row), ormel::Json{json_incref(row)});
  }
  return result;
}

}  // namespace

Result why(const Arguments& arguments) {
  if (!arguments.words.empty()) return why_one(arguments.words[0]);
  ormel::Json found{json_array()};
  std::string text;
  const ormel::Json parts[] = {server_rows(), std::move(profile_list({}).data)};
  for (const ormel::Json& rows : parts) {
    size_t at = 0;
    json_t* row = nullptr;
    json_array_foreach(rows.get(), at, row) {
      if (!has_reason(row)) continue;
      json_array_append(found.get(), row);
      text += explained(row);
    }
  }
  return done(text.empty() ? "Every server and tunnel that is on works." : text, std::move(found));
}

}  // namespace ormelctl
