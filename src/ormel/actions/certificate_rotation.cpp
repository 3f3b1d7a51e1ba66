#include "ormel/actions/certificate_rotation.h"

#include <algorithm>
#include <iterator>
#include <map>
#include <string_view>
#include <tuple>
#include <unistd.h>

#include <fenro/mibservice.h>

#include "base/lines.h"
#include "base/tunnel.h"
#include "ormel/actions/audit.h"
#include "ormel/actions/log_db.h"
#include "ormel/actions/privilege.h"
#include "ormel/actions/tunnel_state.h"
#include "ormel/base/error.h"
#include "ormel/base/file.h"
#include "ormel/base/handle.h"
#include "ormel/base/text.h"
#include "ormel/drivers/openvpn/openvpn.h"
#include "ormel/host/process.h"

namespace ormel::certificates {

namespace {

constexpr const char* TOOL = "/usr/lib/fenro/ovpn-keys";
constexpr const char* NEW_KEYS = "/run/fenro/openvpn.new-keys";  // by the tool, until a start
constexpr std::size_t MOST_ROTATION = 4096;                      // bytes of that file
constexpr int NO_STEP = 4;  // exit status of the tool: nothing to be done
constexpr const char* PHASES[] = {"none", "overlap", "changing", "changed"};
constexpr long STAGES[] = {30 * DAY, 7 * DAY, DAY, 0};  // seconds before the end
constexpr int REFUSED = 1;                              // action of a row of the log
// Actions that deliver the authority to administrators or users.
constexpr std::string_view DOWNLOADS[] = {"config/download", "config/downloadcert", "my/profile"};

struct Number {
  std::string_view key;
  std::time_t Rotation::*value;
};
constexpr Number NUMBERS[] = {{"overlap", &Rotation::overlap},
                              {"begun", &Rotation::begun},
                              {"change", &Rotation::change},
                              {"end", &Rotation::end}};

void read_line(std::string_view line, Rotation& out) {
  const std::string_view key = line.substr(0, line.find('='));
  if (key.size() == line.size()) return;
  const std::string value{line.substr(key.size() + 1)};
  for (const Number& row : NUMBERS) {
    if (key == row.key && !fenro::parse_number(value, out.*row.value)) out.*row.value = 0;
  }
  const auto* const phase =
      std::ranges::find(PHASES, value, [](auto text) { return std::string_view{text}; });
  if (key == "phase" && phase != std::end(PHASES))
    out.phase = static_cast<Phase>(phase - std::begin(PHASES));
}

// The last line of the tool's messages.
std::string last_line(const MibIo& io) {
  std::size_t length = 0;
  const char* const bytes = mib_io_read(io.get(), &length);
  std::vector<std::string> lines = fenro::split_lines(bytes ? std::string(bytes, length) : "");
  std::erase(lines, "");
  return lines.empty() ? "" : lines.back();
}

int run_tool(std::vector<std::string> words, std::string& reason) {
  words.insert(words.begin(), TOOL);
  const MibIo errors{mib_io_create()};
  const int status =
      errors ? mib_io_execv(nullptr, nullptr, errors.get(), system::Argv(words).get()) : -1;
  if (status == 0) return NO_ERROR;
  reason = errors ? last_line(errors) : "";
  if (reason.empty()) reason = std::string(TOOL) + " does not run";
  return status == NO_STEP ? ERR_NOT_SUPPORT : ERR_CMD_FAILED;
}

bool server_runs() {
  config::Management pool;
  pool.load();
  const config::PolyConfig* const server = pool.fetch(OVPN_SERVER_TYPE, 0);
  return server && tunnel_state(*server->bc).state == State::Running;
}

// The daemon reads its keys when it starts.
int restart_server(std::string& reason) {
  if (!server_runs()) return NO_ERROR;
  std::string ignored;
  if (system::do_exec_safe({find_tunnel(OVPN_SERVER_TYPE)->script, "restart"}, ignored) == 0)
    return NO_ERROR;
  reason =
      "the new certificate is in place, but the server does not start again: ormelctl why "
      "openvpn";
  return ERR_CMD_FAILED;
}

// The web interface shows a notice until a profile is downloaded.
void note_new_certificate() {
  config::Management pool;
  pool.load();
  const config::PolyConfig* const server = pool.fetch(OVPN_SERVER_TYPE, 0);
  if (!server) return;
  server->cast<ovpn::ServerConfig>()->download_status = ovpn::NEW_CERTIFICATE;
  std::ignore = pool.save();  // the rotation has begun either way
}

const Certificate* find(const std::vector<Certificate>& all, Role role) {
  const auto found = std::ranges::find_if(
      all, [role](const Certificate& one) { return one.role == role && one.ends(); });
  return found == all.end() ? nullptr : &*found;
}

bool is_quiet(const Moment& moment) {
  return !moment.is_used && moment.hour >= NIGHT_BEGIN && moment.hour < NIGHT_END;
}

// A change-over that is due waits for a night without users, but for a week at most.
bool may_change(const Certificate& authority, const Rotation& state, const Moment& moment) {
  const std::time_t last =
      std::min<std::time_t>(state.change + LAST_TIME, authority.not_after - LAST_TIME);
  return moment.now >= last || (moment.now >= state.change && is_quiet(moment));
}

bool may_renew(const Certificate& server, const Moment& moment) {
  const std::time_t left = server.not_after - moment.now;
  return left < LAST_TIME || (left < RENEW_TIME && is_quiet(moment));
}

// The latest login of each user.
std::map<std::string, std::time_t> last_logins() {
  std::map<std::string, std::time_t> latest;
  db_query_cond all{};
  all.count = -1;
  const auto answer = log_db::ask(list_conn_server_log, all);
  for (const db_conn_server_log& row : answer.rows()) {
    if (row.vpn_type != OVPN_SERVER_TYPE || row.action == REFUSED) continue;
    std::time_t& known = latest[field_text(row.username)];
    known = std::max(known, static_cast<std::time_t>(row.time));
  }
  return latest;
}

std::map<std::string, std::time_t> last_downloads() {
  constexpr std::int64_t MOST_ROWS = 20000;  // the latest
  std::map<std::string, std::time_t> latest;
  audit::Page page;
  if (!audit::trail().read({.lower = 0, .upper = MOST_ROWS}, page)) return latest;
  for (const audit::Entry& entry : page.entries) {
    const bool hands_out = std::ranges::find(DOWNLOADS, entry.action) != std::end(DOWNLOADS);
    if (!hands_out || entry.error != NO_ERROR) continue;
    std::time_t& known = latest[entry.user];
    known = std::max<std::time_t>(known, entry.time);
  }
  return latest;
}

std::time_t time_of(const std::map<std::string, std::time_t>& times, const std::string& user) {
  const auto found = times.find(user);
  return found == times.end() ? 0 : found->second;
}

}  // namespace

const char* name_of(Phase phase) {
  return PHASES[static_cast<std::size_t>(phase)];
}

Rotation parse_rotation(const std::string& text) {
  Rotation state;
  for (const std::string& line : fenro::split_lines(text)) read_line(line, state);
  const bool whole = state.overlap > 0 && state.begun > 0 && state.change > 0 && state.end > 0;
  return whole ? state : Rotation{};
}

std::string overdue_step(const Rotation& state, std::time_t now) {
  if (state.phase == Phase::Overlap && state.change <= now)
    return "their change-over was due on " + clock_text(state.change);
  if (state.phase == Phase::Changed && state.end <= now)
    return "the end of the old authority was due on " + clock_text(state.end);
  return {};
}

Rotation rotation() {
  std::string text;
  return system::read_file(ROTATION_FILE, text, MOST_ROTATION) ? parse_rotation(text) : Rotation{};
}

int renew(std::string& reason) {
  const int rc = run_tool({"renew"}, reason);
  return rc == NO_ERROR ? restart_server(reason) : rc;
}

int rotate(long overlap, std::string& reason) {
  constexpr long LEAST = 3600, MOST = 400 * DAY;
  if (overlap < LEAST || overlap > MOST) {
    reason = "the overlap is 1 hour to 400 days";
    return ERR_VALUE;
  }
  const int rc = run_tool({"rotate", std::to_string(overlap)}, reason);
  if (rc == NO_ERROR) note_new_certificate();
  return rc;
}

int advance(std::string& reason) {
  const bool signs = rotation().phase == Phase::Changed;
  const int rc = run_tool({"advance"}, reason);
  return rc == NO_ERROR && !signs ? restart_server(reason) : rc;
}

int settle(std::string& reason) {
  const int rc = run_tool({"settle"}, reason);
  return rc == NO_ERROR ? restart_server(reason) : rc;
}

int take_up(std::string& reason) {
  return runs_with_older() ? restart_server(reason) : NO_ERROR;
}

int cancel(std::string& reason) {
  return run_tool({"cancel"}, reason);
}

bool runs_with_older() {
  return access(NEW_KEYS, F_OK) == 0 && server_runs();
}

Due due(const std::vector<Certificate>& all, const Rotation& state, const Moment& moment) {
  const Certificate* const authority = find(all, Role::Authority);
  const Certificate* const server = find(all, Role::Server);
  if (state.phase == Phase::Changing) return Due::Settle;
  if (!authority || authority->not_before > moment.now) return Due::Nothing;
  if (moment.is_older && authority->not_after > moment.now) return Due::TakeUp;
  if (state.phase == Phase::Changed && moment.now >= state.end) return Due::Advance;
  if (state.phase == Phase::Overlap && may_change(*authority, state, moment)) return Due::Advance;
  if (authority->not_after <= moment.now) return Due::Nothing;  // no renewal would help
  return server && may_renew(*server, moment) ? Due::Renew : Due::Nothing;
}

std::time_t renewal_begin(const std::vector<Certificate>& all) {
  const Certificate* const server = find(all, Role::Server);
  return server ? server->not_after - RENEW_TIME : 0;
}

int stage_of(const Certificate& one, std::time_t now) {
  if (!one.ends()) return NO_STAGE;
  const std::time_t left = one.not_after - now;
  return static_cast<int>(
      std::ranges::count_if(STAGES, [left](long before) { return left <= before; }));
}

std::vector<Holder> holders_of_old(std::time_t begun) {
  UserPrivilege rights;
  rights.load();
  const auto logins = last_logins(), downloads = last_downloads();
  std::vector<Holder> holders;
  for (const auto& [user, mask] : rights.storage) {
    const Holder holder{user, time_of(logins, user), time_of(downloads, user)};
    if ((mask & OVPN_SERVER_TYPE) != 0 && holder.last_download < begun) holders.push_back(holder);
  }
  return holders;
}

}  // namespace ormel::certificates
