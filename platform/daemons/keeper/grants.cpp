#include "daemons/keeper/grants.h"

#include <cstdio>
#include <tuple>
#include <utility>

#include "base/tunnel.h"

namespace fenro::keeper {
namespace {

constexpr const char* ACTION = "__end-grants";
constexpr std::chrono::seconds PAUSE{5};
constexpr std::chrono::seconds DAMAGED_PAUSE{60};  // while no end can be struck off the list

// Each writer replaces the file. Its time alone does not show that: two writes can fall into one
// tick of the kernel's clock.
bool is_same(const struct stat& one, const struct stat& other) {
  return one.st_ino == other.st_ino && one.st_size == other.st_size &&
         one.st_mtim.tv_sec == other.st_mtim.tv_sec && one.st_mtim.tv_nsec == other.st_mtim.tv_nsec;
}

std::string titles_of(std::uint32_t servers) {
  std::string titles;
  for (const ormel::TunnelFacts& facts : ormel::TUNNELS) {
    if ((servers & static_cast<std::uint32_t>(facts.server)) != 0)
      titles += (titles.empty() ? "" : ", ") + std::string(facts.title);
  }
  return titles;
}

}  // namespace

void Grants::read_when_changed() {
  struct stat info {};
  if (stat(file_.c_str(), &info) != 0) info = {};
  const bool same = seen_ && is_same(info, *seen_);
  if (same && copied_) return;
  seen_ = info;
  const bool before = std::exchange(copied_, keep_good_copy(file_));
  if (before && !copied_)
    std::fprintf(stderr, "fenro-keeperd: no copy of %s could be made\n", file_.c_str());
  if (same) return;
  const GrantBook book = read_grants(file_);
  next_ = book.next_end();
  if (book.damaged && !damaged_)
    report_({"access", Level::Error, file_,
             book.is_copy
                 ? "The list of who may use servers for a time is damaged. Its last good copy is "
                   "used, and no end can be changed: cp " +
                       file_ + ".good " + file_
                 : "The list of who may use servers for a time is damaged: access may not end when "
                   "it should; restore " +
                       file_ + " from a backup, or remove it"});
  if (book.damaged && !damaged_) tried_ = {};  // the longer pause begins with the next try
  damaged_ = book.damaged;
}

void Grants::report_ended() {
  std::map<std::string, std::uint32_t> ended;
  for (const Grant& grant : read_grants(file_).grants) {
    const std::uint32_t servers = grant.ended(std::time(nullptr));
    if (servers == 0) continue;
    ended[grant.user] = servers;
    if (const std::uint32_t news = servers & ~reported_[grant.user]; news != 0)
      report_({"access", Level::Information, grant.user,
               "The access of " + grant.user + " to " + titles_of(news) + " has ended"});
  }
  reported_ = std::move(ended);
}

void Grants::boot() {
  read_when_changed();
  if (!is_due()) return;
  report_ended();
  std::ignore = Child{{tool_, ACTION}}.wait();  // the next tick repeats what failed
}

void Grants::tick(Time now) {
  if (child_ && !child_->poll()) return;
  child_.reset();
  read_when_changed();
  if (!is_due() || now - tried_ < (damaged_ ? DAMAGED_PAUSE : PAUSE)) return;
  tried_ = now;
  report_ended();
  child_ = std::make_unique<Child>(std::vector<std::string>{tool_, ACTION});
}

}  // namespace fenro::keeper
