#include "ormel/changes/pending.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <unistd.h>

#include "base/file.h"
#include "base/random_name.h"
#include "base/utf8.h"
#include "ormel/actions/audit.h"
#include "ormel/base/crypto.h"
#include "ormel/base/error.h"
#include "ormel/base/log.h"
#include "ormel/base/text.h"
#include "ormel/changes/lock.h"
#include "ormel/host/event_log.h"
#include "ormel/host/process.h"

namespace ormel::changes {

namespace {

constexpr const char* FILE_NAME = "/pending/change.json";
constexpr const char* FAULT = "/run/fenro/go_back_fault";
constexpr const char* TOOL = "/usr/sbin/ormelctl";
constexpr const char* SYSTEMD = "/run/systemd/system";
constexpr const char* SYSTEMD_RUN = "/usr/bin/systemd-run";
constexpr size_t CODE_LENGTH = 8;
constexpr int MOST_WRONG = 5;
enum { EVENT_INFORMATION = 0, EVENT_WARNING = 1 };

std::string boot_id() {
  std::string text;
  if (fenro::read_file("/proc/sys/kernel/random/boot_id", text) != 0) return {};
  return text.substr(0, text.find('\n'));
}

std::int64_t seconds_up() {
  timespec time{};
  clock_gettime(CLOCK_BOOTTIME, &time);
  return time.tv_sec;
}

// Letters alone, since people type them. Empty when there is no randomness.
std::string make_code() {
  std::string code;
  while (code.size() < CODE_LENGTH) {
    std::string some(CODE_LENGTH, '\0');
    if (!fenro::random_name(some)) return {};
    for (const char c : some) {
      if (std::isalpha(static_cast<unsigned char>(c)) != 0 && code.size() < CODE_LENGTH) code += c;
    }
  }
  return code;
}

// Takes the same time wherever both differ.
bool equal(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  unsigned difference = 0;
  for (size_t i = 0; i < a.size(); ++i)
    difference |= static_cast<unsigned char>(a[i]) ^ static_cast<unsigned char>(b[i]);
  return difference == 0;
}

std::string joined(const std::vector<std::string>& texts) {
  std::string all;
  for (const std::string& text : texts) all += (all.empty() ? "" : ", ") + text;
  return all;
}

// Two changes at once could not both go back.
Verdict refusal(const PendingChange& change) {
  return {ERR_ACCESS, "a change of " + change.origin.user + " (" + change.origin.via +
                          ") waits for a confirmation until " + clock_text(change.until) +
                          "; confirm it, or let it go back"};
}

constexpr const char* NOTHING = "no change waits for a confirmation";
constexpr const char* BUSY = "another change is still running: try again in a few seconds";

// A transient unit where systemd runs, else a process in its own session.
bool start_timer(int snapshot, long seconds) {
  const std::string number = std::to_string(snapshot);
  if (access(SYSTEMD, F_OK) == 0 && access(SYSTEMD_RUN, X_OK) == 0) {
    std::string output;
    if (system::do_exec_safe({SYSTEMD_RUN, "--quiet", "--collect", "--unit=ormel-go-back-" + number,
                              "--on-active=" + std::to_string(seconds),
                              "--timer-property=AccuracySec=1s", TOOL, "__go-back", number},
                             output) == 0)
      return true;
  }
  return system::background({TOOL, "__go-back", number, std::to_string(seconds)}) == NO_ERROR;
}

// The keeper tries again every few seconds: the first failure of a change is enough to report.
bool is_first_failure(const std::string& root) {
  const Fd mark{open((root + FAULT).c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                     fenro::PRIVATE_FILE)};
  return mark || errno != EEXIST;
}

// As an event.
void report_restored(const Origin& origin, const std::string& what, const Plan& done) {
  std::string text = "[ORMEL Service] " + what + " (" + origin.user + ", " + origin.via + ")";
  const std::vector<std::string> names = affected(done);
  if (!names.empty()) text += "; restarted or stopped: " + joined(names);
  if (!done.failed.empty()) text += "; FAILED: " + joined(done.failed);
  ORMEL_LOG(INFO, "%s", text.c_str());
  system::add_log(text, done.failed.empty() ? EVENT_INFORMATION : EVENT_WARNING);
}

}  // namespace

std::int64_t PendingChange::seconds_left() const {
  return boot == boot_id() ? std::max<std::int64_t>(boot_until - seconds_up(), 0) : 0;
}

Pending::Pending(const std::string& root, Host host)
    : snapshots_(root), host_(std::move(host)), file_(root + Snapshots::STATE_FOLDER + FILE_NAME) {}

Pending::Host Pending::this_host() {
  return {start_timer, Restore::perform, report_restored};
}

std::optional<PendingChange> Pending::find() const {
  std::string text;
  if (fenro::read_file(file_.c_str(), text) != 0) return {};
  const Json document{json_loadb(text.data(), text.size(), 0, nullptr)};
  const auto number = [&](const char* key) {
    return static_cast<std::int64_t>(json_integer_value(json_object_get(document.get(), key)));
  };
  const auto word = [&](const char* key) {
    const char* const value = json_string_value(json_object_get(document.get(), key));
    return std::string(value ? value : "");
  };
  return PendingChange{static_cast<int>(number("snapshot")),
                       word("code"),
                       {word("owner"), word("via"), word("what")},
                       number("since"),
                       number("until"),
                       word("boot"),
                       number("boot_until"),
                       static_cast<int>(number("wrong"))};
}

bool Pending::store(const PendingChange& change) const {
  const Json document{json_pack(
      "{s:i, s:s, s:s, s:s, s:s, s:I, s:I, s:s, s:I, s:i}", "snapshot", change.snapshot, "code",
      change.code.c_str(), "owner", fenro::valid_utf8(change.origin.user).c_str(), "via",
      fenro::valid_utf8(change.origin.via).c_str(), "what",
      fenro::valid_utf8(change.origin.what).c_str(), "since", static_cast<json_int_t>(change.since),
      "until", static_cast<json_int_t>(change.until), "boot", change.boot.c_str(), "boot_until",
      static_cast<json_int_t>(change.boot_until), "wrong", change.wrong)};
  const CString text{json_dumps(document.get(), JSON_COMPACT)};
  return text && fenro::make_private_folder(file_.substr(0, file_.rfind('/'))) &&
         fenro::replace_file(file_, text.get(), fenro::PRIVATE_FILE);
}

void Pending::forget(const PendingChange& change) const {
  unlink(file_.c_str());
  snapshots_.release(change.snapshot);
}

Verdict Pending::begin(const Origin& origin, long seconds, std::string& code) const {
  if (seconds < SHORTEST_SECONDS || seconds > LONGEST_SECONDS)
    return {ERR_VALUE, "the time for a confirmation is 30 to 600 seconds"};
  const std::string folder = std::string(Snapshots::STATE_FOLDER) + "/snapshots";
  if (!snapshots_.wanted())
    return {
        ERR_NOT_SUPPORT,
        folder + " is missing, so that nothing can go back; make it: mkdir -p -m 700 " + folder};
  const StateLock lock{Turn::DECIDE, snapshots_.root()};
  if (!lock) return {ERR_ACCESS, BUSY};
  if (const auto other = find()) return refusal(*other);
  PendingChange change{.origin = origin, .boot = boot_id()};
  std::string reason;
  change.snapshot = snapshots_.take(origin, reason);
  if (change.snapshot == 0) return {ERR_SAVE_FILE, reason + "; nothing was changed"};
  code = make_code();
  change.code = openssl::sha256(code);
  change.since = std::time(nullptr);
  change.until = change.since + seconds;
  change.boot_until = seconds_up() + seconds;
  unlink((snapshots_.root() + FAULT).c_str());
  if (!code.empty() && snapshots_.hold(change.snapshot) && store(change) &&
      host_.start_timer(change.snapshot, seconds))
    return {};
  forget(change);
  snapshots_.drop(change.snapshot);
  return {ERR_SAVE_FILE, "the time for a confirmation cannot be kept; nothing was changed"};
}

Verdict Pending::confirm(const Asker& asker, std::string_view code) const {
  const StateLock lock{Turn::DECIDE, snapshots_.root()};
  if (!lock) return {ERR_ACCESS, BUSY};
  auto change = find();
  if (!change) return {ERR_MISS_OPTION, NOTHING};
  if (!change->owned_by(asker))
    return {ERR_NOT_ADMIN_SESSION, "only " + change->origin.user + " may confirm this change"};
  const bool by_right = asker.root && code.empty();
  if (!by_right && !asker.root && change->wrong >= MOST_WRONG)
    return {ERR_ACCESS, "too many wrong codes: only root may confirm, by: ormelctl confirm"};
  if (!by_right && !equal(openssl::sha256(std::string(code)), change->code)) {
    ++change->wrong;
    if (!store(*change)) return {ERR_SAVE_FILE, "the wrong code cannot be counted"};
    return {ERR_VALUE, "the code is wrong"};
  }
  forget(*change);
  return {};
}

Verdict Pending::go_back(const PendingChange& change, const std::string& why) const {
  const auto snapshot = snapshots_.find(change.snapshot);
  if (!snapshot) {
    forget(change);
    return {ERR_SAVE_FILE, "the snapshot of this change is missing, so that it stays"};
  }
  std::string reason;
  // So that what goes back can be brought back. Going back matters more than this.
  const int saved = snapshots_.take({change.origin.user, change.origin.via, "went back"}, reason);
  Plan done;
  reason.clear();
  const Restore restore(snapshots_, host_.run);
  const int rc = restore.run(*snapshot, done, reason);
  if (rc != NO_ERROR) {
    if (saved != 0 && !restore.unfinished()) snapshots_.drop(saved);
    return {rc, reason};
  }
  forget(change);
  host_.report(change.origin, why + ": the settings of " + clock_text(change.since) + " are back",
               done);
  return {};
}

// No request and no command asks for it, so none has a row in the audit trail.
Verdict Pending::go_back_unasked(const PendingChange& change, const std::string& why) const {
  Verdict verdict = go_back(change, why);
  const bool fails = verdict.code != NO_ERROR;
  if (fails && !is_first_failure(snapshots_.root())) return verdict;
  Plan nothing;
  nothing.failed = {verdict.reason};
  if (fails)
    host_.report(change.origin,
                 why + ": the settings of " + clock_text(change.since) + " are not back", nothing);
  audit::note({change.origin.user, "without confirmation", ""}, "change/go_back",
              change.origin.what, {}, verdict.code);
  return verdict;
}

Verdict Pending::revert(const Asker& asker) const {
  const StateLock decision{Turn::DECIDE, snapshots_.root()};
  const StateLock alone{Turn::GO_BACK, snapshots_.root()};
  if (!decision || !alone) return {ERR_ACCESS, BUSY};
  const auto change = find();
  if (!change) return {ERR_MISS_OPTION, NOTHING};
  if (!change->owned_by(asker))
    return {ERR_NOT_ADMIN_SESSION, "only " + change->origin.user + " may take this change back"};
  return go_back(*change, "Taken back by " + asker.user);
}

void Pending::cancel(int snapshot) const {
  const StateLock lock{Turn::DECIDE, snapshots_.root()};
  const auto change = find();
  if (change && change->snapshot == snapshot) forget(*change);
}

Verdict Pending::expire(int snapshot) const {
  const StateLock decision{Turn::DECIDE, snapshots_.root()};
  // Not required: a change that hangs must not keep the settings from going back.
  const StateLock alone{Turn::GO_BACK, snapshots_.root()};
  if (!decision) return {ERR_ACCESS, BUSY};
  const auto change = find();
  if (!change || change->snapshot != snapshot || change->seconds_left() > 0) return {};
  return go_back_unasked(*change, "Not confirmed in time");
}

Verdict Pending::recover(Moment moment) const {
  const Restore restore(snapshots_, host_.run);
  const auto is_due = [&](const std::optional<PendingChange>& change) {
    return change && (moment == Moment::BOOT || change->seconds_left() == 0);
  };
  // The keeper asks all the time that a change waits: that must not hold up who confirms it.
  if (!restore.unfinished() && !is_due(find())) return {};
  const StateLock decision{Turn::DECIDE, snapshots_.root()};
  if (!decision) return {};  // one that restores is at work
  const StateLock alone{Turn::GO_BACK, snapshots_.root()};
  if (!restore.finish(moment))
    return {ERR_SAVE_FILE, "the settings could not be restored completely"};
  const auto change = find();
  if (!is_due(change)) return {};
  if (moment == Moment::RUNNING) return go_back_unasked(*change, "Not confirmed in time");
  Host starting = host_;
  starting.run = [this](const Step& step) { return starts_tunnels(step) || host_.run(step); };
  return Pending(snapshots_.root(), starting)
      .go_back_unasked(*change, "Not confirmed before the host was started again");
}

Verdict Pending::undo(const Origin& origin, int id, Plan& done, Snapshot& restored) const {
  const StateLock decision{Turn::DECIDE, snapshots_.root()};
  const StateLock alone{Turn::GO_BACK, snapshots_.root()};
  if (!decision || !alone) return {ERR_ACCESS, BUSY};
  if (const auto change = find()) return refusal(*change);
  const std::vector<Snapshot> all = snapshots_.list();
  // Without a number, one that is no different from now would undo nothing.
  const auto chosen = std::ranges::find_if(all, [&](const Snapshot& snapshot) {
    return id == 0 ? !snapshots_.changed_since(snapshot).empty() : snapshot.id == id;
  });
  if (chosen == all.end())
    return {ERR_CONFIGURE_INDEX,
            id == 0 ? "there is nothing to undo" : "there is no change " + std::to_string(id)};
  restored = *chosen;
  const Restore restore(snapshots_, host_.run);
  if (const Plan plan = restore.plan(restored); plan.files.empty() && !plan.kept.empty())
    return {ERR_NOT_SUPPORT,
            plan.kept + "; \"ormelctl cert rotate authority\" begins another change-over"};
  std::string reason = "snapshot " + std::to_string(restored.id) + " cannot be kept";
  // Held, or the snapshot of this moment could push out the oldest one while that is restored.
  const int saved = snapshots_.hold(restored.id) ? snapshots_.take(origin, reason) : 0;
  if (saved == 0) {
    snapshots_.release(restored.id);
    return {ERR_SAVE_FILE, reason + "; nothing was changed"};
  }
  reason.clear();
  const int rc = restore.run(restored, done, reason);
  const bool begun = rc == NO_ERROR ? !done.files.empty() : restore.unfinished();
  if (!begun) snapshots_.drop(saved);
  if (rc != NO_ERROR && !begun) snapshots_.release(restored.id);
  if (rc != NO_ERROR) return {rc, reason};
  host_.report(origin, "The settings of " + clock_text(restored.time) + " are back", done);
  return {};
}

}  // namespace ormel::changes
