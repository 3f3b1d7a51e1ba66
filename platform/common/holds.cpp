#include "common/holds.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <optional>
#include <sys/file.h>
#include <sys/stat.h>
#include <tuple>
#include <utility>

#include <fenro/event_log.h>

#include "base/base64.h"
#include "base/file.h"
#include "base/handle.h"
#include "common/json.h"

namespace fenro {
namespace {

constexpr const char* BOOT_ID = "/proc/sys/kernel/random/boot_id";
constexpr std::size_t MOST = 1000;  // holds at a time

struct KindName {
  Hold::Kind kind;
  const char* word;
};
constexpr KindName KINDS[] = {
    {Hold::Kind::User, "user"}, {Hold::Kind::Peer, "peer"}, {Hold::Kind::Limit, "limit"}};

std::string folder_of(const std::string& path) {
  return path.substr(0, path.rfind('/'));
}

bool is_over(const Hold& hold, const Holds::Moment& now) {
  return now.wall >= hold.until && (hold.boot != now.boot || now.up >= hold.boot_until);
}

std::optional<Hold> parse_hold(const json_t* item) {
  Hold hold;
  const char* kind = text_or_null(item, "kind");
  const char* who = text_or_null(item, "who");
  const char* name = text_or_null(item, "name");
  const char* by = text_or_null(item, "by");
  const char* boot = text_or_null(item, "boot");
  if (!kind || !who || !name || !by || !boot || !parse_base64(who, hold.who) ||
      !parse_base64(name, hold.name))
    return {};
  const auto* const row =
      std::find_if(std::begin(KINDS), std::end(KINDS),
                   [&](const KindName& known) { return !std::strcmp(kind, known.word); });
  if (row == std::end(KINDS) || hold.who.empty()) return {};
  hold.kind = row->kind;
  hold.by = by;
  hold.boot = boot;
  hold.since = json_integer_value(json_object_get(item, "since"));
  hold.until = json_integer_value(json_object_get(item, "until"));
  hold.boot_until = json_integer_value(json_object_get(item, "boot_until"));
  return hold;
}

// Returns false for a damaged file, with the holds that can be read.
bool parse(std::string_view text, std::vector<Hold>& holds) {
  const Json root{json_loadb(text.data(), text.size(), 0, nullptr)};
  const json_t* list = json_object_get(root.get(), "holds");
  bool whole = json_is_array(list);
  std::size_t at = 0;
  const json_t* item = nullptr;
  json_array_foreach(list, at, item) {
    if (auto hold = parse_hold(item)) {
      holds.push_back(std::move(*hold));
    } else {
      whole = false;
    }
  }
  return whole;
}

std::string text_of(const std::vector<Hold>& holds) {
  const Json list{json_array()};
  for (const Hold& hold : holds) {
    json_array_append_new(
        list.get(),
        json_pack("{s:s, s:s, s:s, s:o, s:I, s:I, s:s, s:I}", "kind", word_of(hold.kind), "who",
                  to_base64(hold.who).c_str(), "name", to_base64(hold.name).c_str(), "by",
                  json_text(hold.by).release(), "since", json_int_t{hold.since}, "until",
                  json_int_t{hold.until}, "boot", hold.boot.c_str(), "boot_until",
                  json_int_t{hold.boot_until}));
  }
  const Json root{json_pack("{s:O}", "holds", list.get())};
  return compact(root.get()) + '\n';
}

}  // namespace

const char* word_of(Hold::Kind kind) {
  for (const KindName& row : KINDS) {
    if (row.kind == kind) return row.word;
  }
  return "";
}

Holds::Moment Holds::current() {
  timespec up{};
  clock_gettime(CLOCK_BOOTTIME, &up);
  Moment now{std::time(nullptr), up.tv_sec, {}};
  // The file has no size, so it is not read as a whole.
  const Fd fd{open(BOOT_ID, O_RDONLY | O_CLOEXEC)};
  char id[64];
  const ssize_t length = fd ? read(fd.get(), id, sizeof id) : 0;
  if (length > 0) now.boot.assign(id, static_cast<std::size_t>(length));
  now.boot.resize(std::min(now.boot.find('\n'), now.boot.size()));
  return now;
}

void Holds::report_damage() {
  constexpr int WARNING = 1;
  naslog_event event{};
  event.type = WARNING;
  constexpr std::string_view TEXT =
      "[VPN] The list of users who are kept out was damaged. No one is kept out now.";
  TEXT.copy(event.event_desc, sizeof event.event_desc - 1);
  std::ignore = naslog_event_add(&event);  // the change goes on without the event, too
}

Holds::Holds(std::string file, std::string lock, std::function<Moment()> now,
             std::function<void()> on_damage)
    : file_(std::move(file)),
      lock_(std::move(lock)),
      now_(std::move(now)),
      on_damage_(std::move(on_damage)) {}

std::vector<Hold> Holds::stored() const {
  std::vector<Hold> holds;
  std::string text;
  if (read_file(file_.c_str(), text) == 0)
    std::ignore = parse(text, holds);  // a damaged file is the next writer's matter
  return holds;
}

std::vector<Hold> Holds::list() const {
  std::vector<Hold> holds = stored();
  const Moment now = now_();
  std::erase_if(holds, [&](const Hold& hold) {
    return is_over(hold, now) || (hold.kind == Hold::Kind::Limit && hold.since > now.wall);
  });
  return holds;
}

std::vector<Hold> Holds::limits() const {
  std::vector<Hold> holds = stored();
  std::erase_if(holds, [](const Hold& hold) { return hold.kind != Hold::Kind::Limit; });
  return holds;
}

bool Holds::holds(Hold::Kind kind, std::string_view who) const {
  return std::ranges::any_of(
      list(), [&](const Hold& hold) { return hold.kind == kind && hold.who == who; });
}

bool Holds::change(
    const std::function<bool(std::vector<Hold>& holds, const Moment& now)>& edit) const {
  if (!make_private_folder(folder_of(file_)) || !make_private_folder(folder_of(lock_)))
    return false;
  const Fd lock{open(lock_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, S_IRUSR | S_IWUSR)};
  if (!lock || TEMP_FAILURE_RETRY(flock(lock.get(), LOCK_EX)) != 0) return false;
  std::vector<Hold> holds;
  std::string text;
  const int failure = read_file(file_.c_str(), text);
  if (failure != 0 && failure != ENOENT && failure != EINVAL) return false;
  const bool damaged = failure == EINVAL || (failure == 0 && !parse(text, holds));
  if (damaged) on_damage_();
  if (!edit(holds, now_()) && !damaged) return true;
  return replace_file(file_, text_of(holds));
}

bool Holds::put(Hold hold, const std::function<void(Hold& hold, const Moment& now)>& date) const {
  if (hold.who.empty()) return false;
  bool room = true;
  const bool written = change([&](std::vector<Hold>& holds, const Moment& now) {
    std::erase_if(holds, [&](const Hold& old) {
      return is_over(old, now) || (old.kind == hold.kind && old.who == hold.who);
    });
    room = holds.size() < MOST;
    if (!room) return false;
    date(hold, now);
    holds.push_back(std::move(hold));
    return true;
  });
  return written && room;
}

bool Holds::add(Hold hold, std::int64_t seconds) const {
  if (seconds < 1 || seconds > LONGEST) return false;
  return put(std::move(hold), [seconds](Hold& dated, const Moment& now) {
    dated.since = now.wall;
    dated.until = now.wall + seconds;
    dated.boot = now.boot;
    dated.boot_until = now.up + seconds;
  });
}

bool Holds::limit(Hold hold) const {
  if (hold.since < 0 || hold.since >= NO_END) return false;
  hold.kind = Hold::Kind::Limit;
  return put(std::move(hold), [](Hold& dated, const Moment&) { dated.until = NO_END; });
}

bool Holds::lift(const std::function<bool(const Hold&)>& chosen, std::vector<Hold>& ended) const {
  return change([&](std::vector<Hold>& holds, const Moment&) {
    const auto first = std::stable_partition(holds.begin(), holds.end(),
                                             [&](const Hold& hold) { return !chosen(hold); });
    const bool any = first != holds.end();
    ended.insert(ended.end(), std::make_move_iterator(first), std::make_move_iterator(holds.end()));
    holds.erase(first, holds.end());
    return any;
  });
}

bool Holds::expire(std::vector<Hold>& ended) const {
  // Without a file there is nothing to do, and nothing to create.
  struct stat info {};
  if (stat(file_.c_str(), &info) != 0 && errno == ENOENT) return true;
  const Moment now = now_();
  return lift([&](const Hold& hold) { return is_over(hold, now); }, ended);
}

bool is_held(std::string_view user) {
  return Holds{}.holds(Hold::Kind::User, user);
}

}  // namespace fenro
