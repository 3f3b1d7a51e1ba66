#include "daemons/keeper/recent.h"

namespace fenro::keeper {

void Recent::add(const Report& report, std::time_t now) {
  entries_.push_front({report, now});
  if (entries_.size() > MOST) entries_.pop_back();
}

Json Recent::show() const {
  Json rows{json_array()};
  for (const Entry& entry : entries_) {
    Json row{json_object()};
    const auto set = [&](const char* key, std::string_view text) {
      json_object_set_new(row.get(), key, json_text(text).release());
    };
    json_object_set_new(row.get(), "at", json_integer(entry.at));
    set("event", entry.report.kind);
    set("level", LEVEL_NAMES[static_cast<std::size_t>(entry.report.level)]);
    set("subject", entry.report.subject);
    set("text", entry.report.text);
    set("reason", entry.report.reason);
    json_array_append_new(rows.get(), row.release());
  }
  return rows;
}

}  // namespace fenro::keeper
