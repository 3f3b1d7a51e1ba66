// Snapshots of all state, going back to them, and changes that wait for a confirmation.
#include <csignal>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

#include "ormel/base/error.h"
#include "ormel/changes/pending.h"
#include "ormel/changes/recording.h"
#include "ormel/changes/settings_text.h"
#include "ormel/changes/state_files.h"
#include "unit/platform/scratch.h"

namespace ormel::changes {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr const char* CONF = "/etc/config/vpn.conf";
constexpr const char* RIGHTS = "/etc/config/vpn_user_ex.conf";
constexpr const char* GUARD = "/etc/config/ormel/guard.conf";
constexpr const char* PROFILE = "/etc/config/openvpn/clients/client3";

constexpr const char* OLD =
    "[global]\ndbversion = 2\n\n[OPENVPN]\nEnable = TRUE\nClient IP 1 = 10.8.0.2\n\n"
    "[PPTP]\nEnable = FALSE\n\n[OPENVPN_CLIENT3]\nIndex = 3\nEnable = TRUE\nLocalIP = \n";
constexpr const char* NEW =
    "[global]\ndbversion = 2\n\n[OPENVPN]\nEnable = TRUE\nClient IP 1 = 10.9.0.2\n\n"
    "[PPTP]\nEnable = FALSE\n\n[OPENVPN_CLIENT3]\nIndex = 3\nEnable = TRUE\nLocalIP = 10.1.1.2\n\n"
    "[PPTP_CLIENT1]\nIndex = 1\nEnable = TRUE\n";

// A host's folders below a folder of the test.
class Changes : public testing::Test {
 protected:
  void SetUp() override {
    for (const char* folder :
         {"/var/lib/ormel/snapshots", "/etc/config/ormel", "/etc/config/openvpn/clients",
          "/etc/config/ormel/wireguard", "/etc/openvpn/keys", "/etc/ppp", "/run"})
      fs::create_directories(root + folder);
    put(CONF, OLD);
    put(RIGHTS, "bob:1:0:0:0:0\n");
    put(PROFILE, "remote a\n");
  }
  void put(const std::string& path, const std::string& text) const {
    support::write(root + path, text, 0600);
  }
  [[nodiscard]] std::string get(const std::string& path) const {
    return support::read(root + path);
  }
  int take() {
    const int id = snapshots.take({"anna", "ormelctl", "server set"}, reason);
    EXPECT_NE(id, 0) << reason;
    return id;
  }
  [[nodiscard]] Snapshot taken() { return *snapshots.find(take()); }
  [[nodiscard]] Restore::Runner recorder() {
    return [this](const Step& step) {
      std::string line;
      for (const std::string& word : step.words) line += (line.empty() ? "" : " ") + word;
      steps.push_back(step.words.empty() ? "gateway" : line);
      return true;
    };
  }
  [[nodiscard]] Pending pending(std::function<bool(int, long)> timer = [](int, long) {
    return true;
  }) {
    return Pending{root, {std::move(timer), recorder(), [](auto&&...) {}}};
  }

  const fenro::test::Scratch scratch{"/dev/shm"};  // in memory: each write is flushed
  const std::string root = scratch.path("");
  const Snapshots snapshots{root};
  std::vector<std::string> steps;
  Plan done;
  Snapshot restored;
  std::string reason, code;
};

TEST(StateFiles, AreThoseOfTheTableAlone) {
  const std::pair<std::string, bool> rows[] = {
      {"/etc/config/vpn.conf", true},
      {"/etc/config/openvpn/clients/client12", true},
      {"/etc/config/openvpn/clients/client12_crl.pem", true},
      {"/etc/config/ormel/wireguard/peer_psk7", true},
      {"/var/lib/ormel/grants.json", true},
      {"/etc/config/openvpn/clients/client", false},
      {"/etc/config/openvpn/clients/client1/../../../shadow", false},
      {"/etc/config/openvpn/clients/../clients/client1", false},
      {"/etc/config/openvpn/clients/client1/2", false},
      {"/etc/config/openvpn/clients//client1", false},
      {"/etc/config/openvpn/clients/.client1", false},
      {"/etc/config/openvpn/clientsclient1", false},
      {std::string("/etc/config/vpn.conf\0x", 22), false},
      {"etc/config/vpn.conf", false},
      {"/etc/config/smbpasswd", false},
      {"", false},
  };
  for (const auto& [path, state] : rows) EXPECT_EQ(find_state_file(path) != nullptr, state) << path;
  for (const StateFile& row : state_files()) EXPECT_TRUE(part_named(name_of(row.part))) << row.path;
}

TEST(SettingsText, CountsWhatTunnelsWriteAsNoSettings) {
  const SettingsText then{OLD}, now{NEW};

  EXPECT_THAT(now.differing(then), ElementsAre("OPENVPN", "PPTP_CLIENT1"));
  EXPECT_EQ(SettingsText{OLD}.with_live_keys_of(then), OLD) << "byte for byte";
  const std::string restored = then.with_live_keys_of(now);
  EXPECT_THAT(restored, HasSubstr("LocalIP = 10.1.1.2\n"));
  EXPECT_THAT(SettingsText{restored}.differing(then), IsEmpty());
  EXPECT_EQ(SettingsText{"[A]\nb=c\n"}.settled(), SettingsText{"[A]\r\nb = c\r\n"}.settled());
  EXPECT_TRUE(is_live_key("WG_CLIENT1", "DNS Server"));
  EXPECT_TRUE(is_live_key("OPENVPN_CLIENT3", "Trusted IP"));
  EXPECT_FALSE(is_live_key("OPENVPN", "Status"));
  const SettingsText served{
      "[global]\nsetup_vpn_entrance_status = TRUE\n[OPENVPN]\nEnable = TRUE\n"
      "OPENVPN_iptables_rules = TRUE\n"};
  EXPECT_THAT(served.differing(SettingsText{"[global]\n[OPENVPN]\nEnable = TRUE\n"}), IsEmpty())
      << "else an undo restarts the server";
}

TEST_F(Changes, KeepTwentySnapshotsAndThoseThatAreHeld) {
  const int first = take();
  ASSERT_TRUE(snapshots.hold(first));
  for (int i = 0; i < 30; ++i) {
    put(RIGHTS, "bob:" + std::to_string(i) + "\n");
    take();
  }
  const std::vector<Snapshot> all = snapshots.list();
  EXPECT_EQ(all.size(), Snapshots::MOST + 1);
  EXPECT_EQ(all.front().id, 31);
  EXPECT_EQ(all.back().id, first);
  EXPECT_EQ(snapshots.content(all.front(), RIGHTS), "bob:29\n");
  EXPECT_EQ(support::mode_of(root + "/var/lib/ormel/snapshots/31"), 0700U);
  EXPECT_EQ(support::mode_of(root + "/var/lib/ormel/snapshots/31/0"), 0600U);
  EXPECT_GT(fs::hard_link_count(root + "/var/lib/ormel/snapshots/31/0"), 10U)
      << "a file that stays as it is costs no room";
}

TEST_F(Changes, CompareByContent) {
  const Snapshot snapshot = taken();
  EXPECT_THAT(snapshots.changed_since(snapshot), IsEmpty());
  std::string connected = OLD;
  connected.replace(connected.find("LocalIP = "), 10, "LocalIP = 10.1.1.2");
  put(CONF, connected);
  EXPECT_THAT(snapshots.changed_since(snapshot), IsEmpty()) << "a tunnel that came up is no change";
  put(GUARD, "[guard]\n");
  fs::remove(root + PROFILE);
  EXPECT_THAT(snapshots.changed_since(snapshot), ElementsAre(PROFILE, GUARD));
}

TEST_F(Changes, KeepNoSecretOfASecondFactor) {
  constexpr const char* FACTORS = "/etc/config/ormel/totp.conf";
  const std::string secret(32, 'A');
  put(FACTORS, "eve:on:free:" + secret + ":0:7:0:\nbob:on:required:" + secret + ":0:7:0:\n");
  const Snapshot snapshot = taken();
  EXPECT_EQ(snapshots.content(snapshot, FACTORS), "bob:off:required::0:0:0:\n");
  put(FACTORS, "bob:off:required::0:0:0:\n");
  EXPECT_THAT(snapshots.changed_since(snapshot), IsEmpty()) << "users change these themselves";
  fs::remove(root + FACTORS);
  EXPECT_THAT(snapshots.changed_since(snapshot), ElementsAre(FACTORS));
  ASSERT_EQ(Restore(snapshots, [](const Step&) { return true; }).run(snapshot, done, reason), 0)
      << reason;
  EXPECT_EQ(get(FACTORS), "bob:off:required::0:0:0:\n");
}

TEST_F(Changes, GoBackWithTheScriptsOfWhatDiffersAlone) {
  const Snapshot snapshot = taken();
  put(CONF, NEW);
  put(RIGHTS, "bob:0:0:0:0:0\n");
  put(GUARD, "[guard]\nmode = strict\n");
  ASSERT_EQ(Restore(snapshots, recorder()).run(snapshot, done, reason), NO_ERROR) << reason;

  EXPECT_THAT(done.files, ElementsAre(GUARD, CONF, RIGHTS));
  EXPECT_FALSE(fs::exists(root + GUARD));
  EXPECT_EQ(get(RIGHTS), "bob:1:0:0:0:0\n");
  EXPECT_THAT(SettingsText{get(CONF)}.differing(SettingsText{OLD}), IsEmpty());
  EXPECT_THAT(get(CONF), HasSubstr("LocalIP = 10.1.1.2")) << "this tunnel goes on";
  EXPECT_THAT(steps, ElementsAre("/etc/init.d/vpn_pptp_client.sh stop 1",
                                 "/etc/init.d/vpn_common.sh remove_vpnclient_profile ppp1001",
                                 "PPTP_CLIENT1", "/etc/init.d/vpn_openvpn.sh restart",
                                 "/etc/init.d/vpn_guard.sh apply", "gateway"));
  EXPECT_FALSE(Restore(snapshots, recorder()).unfinished());
}

TEST_F(Changes, ChangeNothingForADamagedCopy) {
  const Snapshot snapshot = taken();
  put(CONF, NEW);
  put("/var/lib/ormel/snapshots/1/2", "bob:1:1:1:1:1\n");
  EXPECT_EQ(Restore(snapshots, recorder()).run(snapshot, done, reason), ERR_SAVE_FILE);
  EXPECT_THAT(reason, HasSubstr("is damaged"));
  EXPECT_EQ(get(CONF), NEW);
  EXPECT_THAT(steps, IsEmpty());
}

// Lets a child go on for so many calls of the system, and kills it. Whether it had ended before.
bool ends_before(pid_t child, int calls) {
  int status = 0;
  waitpid(child, &status, 0);
  for (int i = 0; i < 2 * calls; ++i) {  // each call stops twice
    ptrace(PTRACE_SYSCALL, child, nullptr, nullptr);
    if (waitpid(child, &status, 0) != child || !WIFSTOPPED(status)) return true;
  }
  kill(child, SIGKILL);
  waitpid(child, &status, 0);
  return false;
}

TEST_F(Changes, LeaveEachFileOldOrNewWhereverTheyAreKilled) {
  constexpr int POINTS = 500;
  const Snapshot snapshot = taken();
  const std::pair<const char*, std::string> changed[] = {
      {CONF, NEW}, {RIGHTS, "bob:0:0:0:0:0\n"}, {PROFILE, "remote b\n"}, {GUARD, "[guard]\n"}};
  int finished = 0, killed_amid = 0;
  for (int point = 1; point <= POINTS; ++point) {
    SCOPED_TRACE(point);
    for (const auto& [path, text] : changed) put(path, text);
    const pid_t child = fork();
    if (child == 0) {
      if (ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0) _exit(2);
      raise(SIGSTOP);
      _exit(Restore(snapshots, [](const Step&) { return true; }).run(snapshot, done, reason));
    }
    if (ends_before(child, point)) ++finished;
    size_t old = 0;
    for (const auto& [path, text] : changed) {
      const std::string now = get(path);
      const auto then = snapshots.content(snapshot, path);
      const bool is_old = then ? SettingsText{now}.settled() == SettingsText{*then}.settled()
                               : !fs::exists(root + path);
      old += is_old ? 1 : 0;
      ASSERT_TRUE(is_old || now == text) << path << ":\n" << now;
    }
    if (old > 0 && old < std::size(changed)) ++killed_amid;
    const Restore again{snapshots, recorder()};
    if (!again.unfinished()) continue;
    ASSERT_TRUE(again.finish(Moment::RUNNING));
    ASSERT_THAT(snapshots.changed_since(snapshot), IsEmpty());
  }
  EXPECT_GT(killed_amid, 20) << "else no point was between two files";
  EXPECT_LT(finished, POINTS / 2) << "else most points came after the end";
}

TEST_F(Changes, WaitForOneConfirmationAtATimeByItsOwner) {
  const Pending changes = pending();
  std::string other;
  ASSERT_EQ(changes.begin({"anna", "web 192.0.2.5", "change/begin"}, 90, code).code, NO_ERROR);
  EXPECT_EQ(code.size(), 8U);
  EXPECT_THAT(get("/var/lib/ormel/pending/change.json"), testing::Not(HasSubstr(code)));

  const Verdict second = changes.begin({"bob", "ormelctl", "x"}, 90, other);
  EXPECT_EQ(second.code, ERR_ACCESS);
  EXPECT_THAT(second.reason, HasSubstr("anna (web 192.0.2.5)"));
  EXPECT_EQ(changes.confirm({"bob", false}, code).code, ERR_NOT_ADMIN_SESSION);
  EXPECT_EQ(changes.revert({"bob", false}).code, ERR_NOT_ADMIN_SESSION);
  EXPECT_EQ(changes.undo({"bob", "", ""}, 0, done, restored).code, ERR_ACCESS);

  EXPECT_EQ(changes.confirm({"anna", false}, "").code, ERR_VALUE);
  for (int i = 0; i < 4; ++i)
    EXPECT_EQ(changes.confirm({"anna", false}, "wrongone").code, ERR_VALUE);
  EXPECT_EQ(changes.confirm({"anna", false}, code).code, ERR_ACCESS) << "five were wrong";
  EXPECT_EQ(changes.confirm({"root", true}, "wrongone").code, ERR_VALUE);
  EXPECT_EQ(changes.confirm({"root", true}, code).code, NO_ERROR);
  EXPECT_EQ(changes.confirm({"anna", false}, code).code, ERR_MISS_OPTION);
}

TEST_F(Changes, RefuseAnUnreasonableTimeAndAHostWithoutRoom) {
  for (const long seconds : {-1L, 0L, 29L, 601L})
    EXPECT_EQ(pending().begin({}, seconds, code).code, ERR_VALUE) << seconds;
  const Pending without_timer = pending([](int, long) { return false; });
  EXPECT_EQ(without_timer.begin({}, 90, code).code, ERR_SAVE_FILE);
  EXPECT_FALSE(without_timer.find());
  EXPECT_THAT(snapshots.list(), IsEmpty());
  fs::remove_all(root + "/var/lib/ormel");
  EXPECT_EQ(pending().begin({}, 90, code).code, ERR_NOT_SUPPORT);
}

TEST_F(Changes, GoBackOnceTheTimeIsOver) {
  const std::tuple<const char*, bool, bool, size_t> rows[] = {
      {"a timer that comes too early", false, false, 0},
      {"the end of the time", true, false, 1},
      {"a restart of the host, which starts no server yet", false, true, 0}};
  for (const auto& [name, overdue, boot, count] : rows) {
    SCOPED_TRACE(name);
    put(CONF, OLD);
    steps.clear();
    const Pending changes = pending();
    ASSERT_EQ(changes.begin({"anna", "", ""}, 30, code).code, NO_ERROR);
    std::string changed = OLD;
    put(CONF, changed.replace(changed.find("10.8"), 4, "10.9"));
    std::string file = get("/var/lib/ormel/pending/change.json");
    const size_t end = file.find("\"boot_until\":");
    if (overdue)
      put("/var/lib/ormel/pending/change.json", file.replace(end, 13, "\"boot_until\":-"));
    const int snapshot = changes.find()->snapshot;
    EXPECT_EQ(changes.expire(snapshot + 1).code, NO_ERROR);
    EXPECT_EQ(get(CONF), changed) << "the timer of another change";
    EXPECT_EQ((boot ? changes.recover(Moment::BOOT) : changes.expire(snapshot)).code, NO_ERROR);
    const bool back = overdue || boot;
    EXPECT_EQ(get(CONF), back ? OLD : changed);
    EXPECT_EQ(steps.size(), count);
    EXPECT_EQ(changes.find().has_value(), !back);
    if (!back) changes.cancel(snapshot);
  }
}

TEST_F(Changes, ReportOnceThatTheyCannotGoBack) {
  int reports = 0;
  const Pending changes{
      root, {[](int, long) { return true; }, recorder(), [&](auto&&...) { ++reports; }}};
  ASSERT_EQ(changes.begin({"anna", "", ""}, 30, code).code, NO_ERROR);
  put("/var/lib/ormel/snapshots/1/0", "damaged");
  put(RIGHTS, "bob:0:0:0:0:0\n");
  for (int i = 0; i < 3; ++i) EXPECT_EQ(changes.recover(Moment::BOOT).code, ERR_SAVE_FILE);
  EXPECT_EQ(reports, 1);
  EXPECT_EQ(snapshots.list().size(), 1U) << "no attempt leaves a snapshot";
  EXPECT_TRUE(changes.find());
}

TEST_F(Changes, AreTakenBackToTheOldestSnapshot) {
  const Pending changes = pending();
  for (size_t i = 0; i < Snapshots::MOST; ++i) {
    put(RIGHTS, "bob:" + std::to_string(i) + "\n");
    take();
  }
  put(RIGHTS, "bob:last\n");
  const Verdict verdict = changes.undo({"anna", "ormelctl", "undo 1"}, 1, done, restored);
  EXPECT_EQ(verdict.code, NO_ERROR) << verdict.reason;
  EXPECT_EQ(get(RIGHTS), "bob:0\n");
}

// What the next start of the server would do again is no undo.
TEST_F(Changes, LeaveCertificatesWhoseNextStepIsOverdue) {
  constexpr const char* ROTATION = "/etc/openvpn/keys/rotation";
  constexpr const char* AUTHORITY = "/etc/openvpn/keys/ca.crt";
  const std::string over = "1000", ahead = std::to_string(std::time(nullptr) + 3600);
  const std::tuple<std::string, std::string, std::string, bool> rows[] = {
      {"overlap", over, ahead, false},
      {"overlap", ahead, ahead, true},
      {"changed", over, ahead, true},
      {"changed", over, over, false}};
  for (const auto& [phase, change, end, back] : rows) {
    const std::string rotation = std::string("phase=")
                                     .append(phase)
                                     .append("\noverlap=60\nbegun=900")
                                     .append("\nchange=")
                                     .append(change)
                                     .append("\nend=")
                                     .append(end)
                                     .append("\n");
    SCOPED_TRACE(rotation);
    put(ROTATION, rotation);
    put(AUTHORITY, "then");
    put(RIGHTS, "bob:1:0:0:0:0\n");
    const int id = take();
    fs::remove(root + ROTATION);
    put(AUTHORITY, "now");
    Verdict verdict = pending().undo({}, id, done, restored);
    EXPECT_EQ(verdict.code, back ? NO_ERROR : ERR_NOT_SUPPORT) << verdict.reason;
    EXPECT_EQ(get(AUTHORITY), back ? "then" : "now");
    if (back) continue;
    EXPECT_THAT(verdict.reason, HasSubstr("begins another change-over"));
    put(RIGHTS, "bob:0:0:0:0:0\n");
    verdict = pending().undo({}, id, done, restored);
    EXPECT_EQ(verdict.code, NO_ERROR) << verdict.reason;
    EXPECT_EQ(get(RIGHTS), "bob:1:0:0:0:0\n") << "the rest goes back";
    EXPECT_EQ(get(AUTHORITY), "now");
    EXPECT_FALSE(fs::exists(root + ROTATION));
    EXPECT_THAT(done.kept, HasSubstr("stay as they are"));
  }
}

TEST_F(Changes, AreTakenBackAndBroughtBack) {
  const Pending changes = pending();
  take();
  put(RIGHTS, "bob:0:0:0:0:0\n");
  ASSERT_EQ(changes.undo({"anna", "ormelctl", "undo"}, 0, done, restored).code, NO_ERROR);
  EXPECT_EQ(get(RIGHTS), "bob:1:0:0:0:0\n");
  EXPECT_EQ(restored.origin.what, "server set");
  ASSERT_EQ(changes.undo({"anna", "ormelctl", "undo"}, 0, done, restored).code, NO_ERROR);
  EXPECT_EQ(get(RIGHTS), "bob:0:0:0:0:0\n");
  EXPECT_EQ(restored.origin.what, "undo");
  EXPECT_EQ(changes.undo({"anna", "", ""}, 99, done, restored).code, ERR_CONFIGURE_INDEX);
  EXPECT_THAT(steps, IsEmpty());
}

}  // namespace
}  // namespace ormel::changes
