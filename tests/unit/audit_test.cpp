// The audit trail: its chain under damage, killed writers and a crowd, what counts as a change, and
// one row for each route that changes something.
#include "ormel/actions/audit.h"

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <gmock/gmock.h>
#include <tuple>

#include "ormel/actions/audit_row.h"
#include "ormel/web/routes.h"
#include "ormelctl/recording.h"
#include "support/files.h"
#include "support/wait.h"
#include "unit/platform/scratch.h"

namespace ormel::audit {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class Audit : public testing::Test {
 public:
  Audit() { support::make_empty_folder(trail().folder()); }
  Audit(const Audit&) = delete;
  Audit& operator=(const Audit&) = delete;
  ~Audit() override { parent_folder() = former_; }

 protected:
  static std::string file(int64_t start = 1) {
    char name[32];
    std::snprintf(name, sizeof name, "/%012ld.jsonl", static_cast<long>(start));
    return trail().folder() + name;
  }
  // Returns what the file holds then.
  static std::string fill(int count, const std::string& user = "anna") {
    for (int i = 0; i < count; ++i)
      EXPECT_TRUE(trail().append({.time = 1000 + i, .user = user, .action = "gateway/set"}));
    return support::read(file());
  }
  static Verdict verdict() {
    Verdict found;
    EXPECT_TRUE(trail().verify(found));
    return found;
  }
  static std::vector<Entry> rows() {
    Page page;
    EXPECT_TRUE(trail().read({.upper = 100000, .oldest_first = true}, page));
    EXPECT_EQ(page.total, static_cast<int64_t>(page.entries.size()));
    return page.entries;
  }

 private:
  fenro::test::Scratch scratch_;
  std::string former_ = std::exchange(parent_folder(), scratch_.path(""));
};

TEST_F(Audit, NamesTheRowWhereAnyByteHasChanged) {
  const std::string whole = fill(3);
  ASSERT_EQ(verdict().fault, "");
  int64_t row = 1;
  for (size_t at = 0; at < whole.size(); ++at) {
    std::string damaged = whole;
    damaged[at] = static_cast<char>(damaged[at] ^ 1);
    support::write(file(), damaged);
    const Verdict found = verdict();
    EXPECT_EQ(found.bad, row) << at << ": " << found.fault;
    EXPECT_EQ(found.entries, row - 1);
    if (whole[at] == '\n') ++row;
  }
}

TEST_F(Audit, NamesTheRowThatIsMissingOrMoved) {
  const std::string whole = fill(4);
  std::vector<std::string> lines;
  for (size_t at = 0; at < whole.size(); at = whole.find('\n', at) + 1)
    lines.push_back(whole.substr(at, whole.find('\n', at) + 1 - at));
  const std::pair<std::vector<size_t>, int64_t> cases[] = {
      {{1, 2, 3}, 1}, {{0, 2, 3}, 2}, {{0, 2, 1, 3}, 2}, {{0, 1, 1, 2, 3}, 3}};
  for (const auto& [order, bad] : cases) {
    std::string text;
    for (const size_t line : order) text += lines[line];
    support::write(file(), text);
    EXPECT_EQ(verdict().bad, bad) << testing::PrintToString(order);
  }
}

TEST_F(Audit, GoesOnAfterAWriterThatWasKilledAndExplainsIt) {
  const std::string whole = fill(2);
  const size_t second = whole.find('\n') + 1;
  for (size_t length = second + 1; length < whole.size() - 1; length += 7) {
    support::write(file(), whole.substr(0, length));
    Verdict found = verdict();
    EXPECT_EQ(found.fault, "") << length;
    EXPECT_THAT(found.notes, ElementsAre("the writer of an entry after 1 was killed"));

    fill(2);
    found = verdict();
    EXPECT_EQ(found.fault, "") << length;
    EXPECT_EQ(found.entries, 3);
    EXPECT_THAT(found.notes, ElementsAre("the writer of an entry after 1 was killed"));
    EXPECT_EQ(rows().size(), 3U);
  }
}

TEST_F(Audit, TakesARowThatLacksNothingButItsLineEnd) {
  const std::string whole = fill(2);
  support::write(file(), whole.substr(0, whole.size() - 1));
  EXPECT_EQ(verdict().entries, 2);
  fill(1);
  EXPECT_EQ(verdict().fault, "");
  EXPECT_EQ(rows().size(), 3U);
}

// A line in the middle that was made to look torn is still found.
TEST_F(Audit, TakesNoRowForAnUnfinishedOneLater) {
  std::string text = fill(3);
  text.erase(text.find('\n') + 20, 30);
  support::write(file(), text);
  EXPECT_EQ(verdict().bad, 2);
}

TEST_F(Audit, GoesOnAfterDamage) {
  std::string text = fill(2);
  text[text.size() - 5] = '#';
  support::write(file(), text);
  fill(1);
  EXPECT_EQ(verdict().bad, 2);
  Page page;
  ASSERT_TRUE(trail().read({.lower = 0, .upper = 0}, page));
  EXPECT_EQ(page.entries[0].number, 3);
}

TEST_F(Audit, KeepsItsChainOverFilesAndTheLossOfTheOldest) {
  const Trail small(trail().folder(), {.file_rows = 3, .files = 4});
  for (int i = 0; i < 20; ++i) ASSERT_TRUE(small.append({.time = i, .user = "anna"}));
  EXPECT_FALSE(fs::exists(file(7)));
  Verdict found;
  ASSERT_TRUE(small.verify(found));
  EXPECT_EQ(found.fault, "");
  EXPECT_EQ(found.entries, 11);
  EXPECT_EQ(found.since, 9);
  Page page;
  ASSERT_TRUE(small.read({.lower = 4, .upper = 5}, page));
  EXPECT_EQ(page.total, 11);
  EXPECT_EQ(page.entries[0].number, 16);

  fs::remove(file(13));
  ASSERT_TRUE(small.verify(found = {}));
  EXPECT_EQ(found.fault, "entries 1 to 9 are missing") << "three files are too few for a rotation";
  fs::remove(file(10));
  support::write(file(13), "");
  ASSERT_TRUE(small.verify(found = {}));
  EXPECT_EQ(found.bad, 1);
}

TEST_F(Audit, ChainsWhatACrowdWritesAtOnce) {
  constexpr int WRITERS = 50, ROWS = 4;
  for (int i = 0; i < WRITERS; ++i) {
    if (fork() != 0) continue;
    for (int row = 0; row < ROWS; ++row) note({"writer", "web", ""}, std::to_string(i), "", {}, 0);
    _exit(0);
  }
  while (wait(nullptr) > 0) continue;
  EXPECT_EQ(verdict().entries, WRITERS * ROWS);
  EXPECT_EQ(verdict().fault, "");
}

TEST_F(Audit, SurvivesWritersThatAreKilledAtAnyTime) {
  for (int round = 0; round < 30; ++round) {
    const pid_t writer = fork();
    if (writer == 0) {
      for (;;) note({"writer", "web", ""}, "x", "", {}, 0);
    }
    usleep(static_cast<useconds_t>(2000 + round * 500));
    kill(writer, SIGKILL);
    waitpid(writer, nullptr, 0);
  }
  const int64_t written = static_cast<int64_t>(rows().size());
  EXPECT_GT(written, 0);
  EXPECT_EQ(verdict().fault, "");
  EXPECT_EQ(verdict().entries, written);
}

TEST_F(Audit, SaysThatAnActionWasInterrupted) {
  const pid_t program = fork();
  if (program == 0) {
    const Recorder recorder({"anna", "ormel", ""}, "--modify", "openvpn");
    raise(SIGKILL);
  }
  waitpid(program, nullptr, 0);
  ASSERT_TRUE(support::comes_true([] { return rows().size() == 1; }));
  EXPECT_EQ(rows()[0].error, UNFINISHED);
  EXPECT_EQ(rows()[0].subject, "openvpn");
}

TEST_F(Audit, ChoosesRowsByPageUserAndTime) {
  fill(5);
  fill(3, "bob");
  const std::tuple<Query, std::vector<int64_t>, int64_t> cases[] = {
      {{.lower = 0, .upper = 1}, {8, 7}, 8},
      {{.lower = 6, .upper = 99}, {2, 1}, 8},
      {{.lower = 0, .upper = 1, .oldest_first = true}, {1, 2}, 8},
      {{.lower = 1, .upper = 1, .user = "bob"}, {7}, 3},
      {{.lower = 0, .upper = 9, .user = "b"}, {}, 0},
      {{.lower = 0, .upper = 9, .since = 1003}, {5, 4}, 2},
      {{.lower = 9, .upper = 5}, {}, 8},
  };
  for (const auto& [query, numbers, total] : cases) {
    Page page;
    ASSERT_TRUE(trail().read(query, page));
    std::vector<int64_t> found;
    for (const Entry& entry : page.entries) found.push_back(entry.number);
    EXPECT_EQ(found, numbers);
    EXPECT_EQ(page.total, total);
  }
}

TEST_F(Audit, KeepsHostileTextsOnOneLineAndShort) {
  const std::string texts[] = {
      "\"},{\"n\":1",
      "\n{\"hash\":\"0\"}\n",
      "\\u0000",
      "%s%n",
      "\x1b[2J\r\t",
      "\xff\xfe\x80",
      std::string("a\0b", 3),
      std::string(5000, 'x'),
      std::string(199, 'y') + "\xc3\xa9\xc3\xa9",
  };
  for (const std::string& text : texts)
    note({text, text, text}, text, text, {{text, text, text}}, 0);
  EXPECT_EQ(verdict().fault, "");
  ASSERT_EQ(rows().size(), std::size(texts));
  for (size_t i = 0; i < std::size(texts); ++i) {
    const Entry row = rows()[i];
    for (const std::string& value : {row.user, row.subject, row.changes[0].from}) {
      EXPECT_LE(value.size(), LONGEST_TEXT);
      EXPECT_EQ(value, shortened(texts[i]));
    }
  }
  const std::string stored = support::read(file());
  EXPECT_EQ(static_cast<size_t>(std::count(stored.begin(), stored.end(), '\n')), std::size(texts));
  EXPECT_TRUE(
      std::ranges::all_of(stored, [](char c) { return c == '\n' || (c >= ' ' && c < 127); }));
}

TEST_F(Audit, SaysHowManyChangesAreLeftOut) {
  const std::vector<Change> many(MOST_CHANGES + 5, Change{"field", "1", "2"});
  note({}, "x", "", many, 0);
  const std::vector<Change> kept = rows()[0].changes;
  ASSERT_EQ(kept.size(), MOST_CHANGES);
  EXPECT_EQ(kept.back().field, "6 more");
}

class AuditState : public testing::Test {
 protected:
  void put(const std::string& path, const std::string& text) const {
    fs::create_directories(fs::path(scratch_.path(path)).parent_path());
    scratch_.write(path, text);
  }
  [[nodiscard]] State look() const { return read_state(scratch_.path("")); }
  [[nodiscard]] std::vector<std::string> changes_since(const State& before) const {
    std::vector<std::string> found;
    for (const Change& change : changes_between(before, look()))
      found.push_back(change.field + '|' + change.from + '|' + change.to);
    return found;
  }

 private:
  fenro::test::Scratch scratch_;
};

TEST_F(AuditState, ShowsWhatDiffersAndNoSecret) {
  put("/etc/config/vpn.conf",
      "[OPENVPN]\nClient IP 1 = 10.8.0.2\n[L2TP]\nPSK = sesame1\n"
      "[PPTP_CLIENT1]\nProfile File = of%20fice\nAccessCode = c2VzYW1l\nStatus = 0\n");
  put("/etc/config/vpn_user_ex.conf", "bob:1:0:0:0:0\n");
  put("/etc/config/vpn_options.conf", R"({"gw_setting":{"as_gw_en":0}})");
  const State before = look();
  put("/etc/config/vpn.conf",
      "[DROVIK]\nDebug = 0\nVPN Port = 444\n[L2TP_CLIENT12]\nReconnect = 1\nEnable = FALSE\n"
      "[OPENVPN]\nClient IP 1 = 10.9.0.2\nOPENVPN_iptables_rules = 1\n[L2TP]\nPSK = sesame2\n"
      "[PPTP_CLIENT1]\nProfile File = home\nAccessCode = c2VzYW1m\nStatus = 1\n");
  put("/etc/config/vpn_user_ex.conf", "bob:1:1:0:0:0\npasswd:0:0:0:0:0\n");
  put("/etc/config/vpn_options.conf", R"({"gw_setting":{"as_gw_en":1,"gw1":{"index":3}}})");
  put("/etc/config/ormel/keeper.conf", "[notify ops]\nURL = https://h/sesame\nSecret = sesame3\n");
  put("/etc/config/ormel/public_address", "vpn.example.org\n");
  put("/etc/config/openvpn/clients/client3", "<key>sesame</key>\n");
  put("/var/lib/ormel/holds.json",
      R"({"holds":[{"kind":"user","who":"Ym9i","name":"Ym9i","until":0}]})");

  EXPECT_THAT(
      changes_since(before),
      ElementsAre("/etc/config/openvpn/clients/client3||changed", "DROVIK/VPN Port||444",
                  "L2TP/PSK||changed", "OPENVPN/Client IP 1|10.8.0.2|10.9.0.2",
                  "PPTP_CLIENT1/AccessCode||changed", "PPTP_CLIENT1/Profile File|of fice|home",
                  "address||vpn.example.org", "gw_setting/as_gw_en|0|1", "gw_setting/gw1/index||3",
                  testing::StartsWith("hold/user/bob||until 19"), "notify ops/Secret||changed",
                  "notify ops/URL||changed", "rights/bob|pptp|pptp,openvpn",
                  "rights/passwd||none"));
}

TEST_F(AuditState, ComparesSectionsByNameAndTheLastValueOfAKey) {
  const std::tuple<const char*, const char*, std::vector<std::string>> cases[] = {
      {"[a]\nx = 1\n\n[b]\ny = 2\n", "[b]\ny = 2\n[a]\n x=1\n", {}},
      {"[a]\nx = 1\n[b]\ny = 2\n[a]\nx = 3\n", "[a]\nx = 3\n[b]\ny = 2\n", {}},
      {"[a]\nx = 1\n[a]\nx = 3\n", "[a]\nx = 3\n[a]\nx = 1\n", {"a/x|3|1"}},
      {"[a]\nx = 1\n[c]\nz = 1\n", "[c]\nz = 1\n[b]\ny = 2\n", {"a/x|1|", "b/y||2"}},
      {"[a]\nx = 1\n[]\nx = 1\n", "[a]\nx = 1\n[]\nx = 2\n", {"x|1|2"}},
      {"x = 1\n[a]\nx = 1\n", "  [a]  \nx = 1\n", {"x|1|"}},
      {"[a]\nx = [1]\n", "[a]\nx = [2]", {"a/x|[1]|[2]"}},
  };
  for (const auto& [from, to, changes] : cases) {
    put("/etc/config/vpn.conf", from);
    const State before = look();
    put("/etc/config/vpn.conf", to);
    EXPECT_EQ(changes_since(before), changes) << to;
  }
}

TEST_F(Audit, KeepsNothingWithoutItsFolder) {
  fs::remove_all(trail().folder());
  note({"anna", "web", ""}, "x", "", {}, 0);
  Recorder recorder({"anna", "web", ""}, "x", "");
  EXPECT_EQ(recorder.finish(7), 7);
  EXPECT_TRUE(fs::is_empty(parent_folder()));
}

TEST(AuditOrigin, TakesNothingButAnAddressFromTheEnvironment) {
  const std::pair<const char*, const char*> cases[] = {
      {"192.0.2.9 5000 192.0.2.1 22", "192.0.2.9"},
      {"2001:db8::9 1 2 3", "2001:db8::9"},
      {"192.0.2.9; reboot", ""},
      {"", ""},
      {" 192.0.2.9", ""},
  };
  for (const auto& [value, ip] : cases) {
    setenv("SSH_CONNECTION", value, 1);
    const Origin origin = local_origin("ormel");
    EXPECT_EQ(origin.ip, ip) << value;
    EXPECT_EQ(origin.via.starts_with("ormel ssh"), *ip != '\0');
    EXPECT_FALSE(origin.user.empty());
  }
  unsetenv("SSH_CONNECTION");
}

class AuditRoutes : public Audit {
 protected:
  // One request of a route whose work ends with `code`.
  static std::vector<Entry> rows_after(cgi::Route row, const std::string& form,
                                       cgi::Caller caller = cgi::OF_SESSION) {
    support::make_empty_folder(trail().folder());
    static int code = 0;
    code = row.path.size() % 2 == 0 ? 0 : ERR_VALUE;
    row.answer.give = [](const cgi::Request&, JsonValue& response) {
      return cgi::answer_json(response, cgi::Outcome{code});
    };
    std::ignore =
        cgi::answer_locally(form, caller, [&](JsonValue& response) { cgi::serve(row, response); });
    return rows();
  }
};

TEST_F(AuditRoutes, HaveOneRowForEachRequestThatChangesSomething) {
  setenv("REMOTE_ADDR", "192.0.2.7", 1);
  for (const cgi::Route& row : cgi::routes()) {
    SCOPED_TRACE(std::string(row.path));
    const int code = row.path.size() % 2 == 0 ? 0 : static_cast<int>(ERR_VALUE);
    const int for_guests = row.access.least == GENERAL_USER ? code : row.access.refusal;
    const std::tuple<const char*, const char*, int> cases[] = {{"sid=admin", "admin", code},
                                                               {"sid=guest", "guest", for_guests},
                                                               {"sid=gone", "", ERR_SESSION_FAIL},
                                                               {"", "", ERR_SESSION_FAIL}};
    for (const auto& [session, user, result] : cases) {
      const std::vector<Entry> found = rows_after(row, session);
      if (row.effect == cgi::READS) {
        EXPECT_THAT(found, IsEmpty()) << session;
        continue;
      }
      ASSERT_EQ(found.size(), 1U) << session;
      EXPECT_EQ(found[0].user, user);
      EXPECT_EQ(found[0].via, "web");
      EXPECT_EQ(found[0].ip, "192.0.2.7");
      EXPECT_EQ("/ormel/" + found[0].action, row.path);
      EXPECT_EQ(found[0].error, result);
    }
    EXPECT_THAT(rows_after(row, "sid=admin", cgi::LOCAL_ADMINISTRATOR), IsEmpty());
  }
  unsetenv("REMOTE_ADDR");
}

TEST_F(AuditRoutes, SayWhatTheyAreAbout) {
  const std::tuple<std::string, std::string, const char*> cases[] = {
      {"config/add", "type=1024&name=of%2520fice&pass=sesame", "openvpn (of fice)"},
      {"config/remove", "type=OVPN&index=3", "openvpn/3"},
      {"gateway/set", "gw1_type=1024&gw1_index=3&gw2_type=256&gw2_index=1", "openvpn/3, pptp/1"},
      {"peer/add", "peer_name=phone", "phone"},
      {"privilege/set", "user=bob%7C7&user=eve%7C1", "bob, eve"},
      {"connection/end", "conn=4%7C192.0.2.1:5", "4|192.0.2.1:5"},
      {"grant/set", "user=bob&devices=2", "bob"},
      {"my/end", "id=4%7C192.0.2.1:6", "4|192.0.2.1:6"},
      {"my/device_add", "name=phone", "phone"},
      {"hold/lift", "who=bob", "bob"},
      {"notify/set", "name=ops&secret=sesame", "ops"},
      {"pelmar/device_register", "org_name=Mine", "Mine"}};
  for (const auto& [path, form, subject] : cases) {
    const std::vector<Entry> found =
        rows_after(*cgi::find_route("/ormel/" + path), form + "&sid=admin");
    ASSERT_EQ(found.size(), 1U) << path;
    EXPECT_EQ(found[0].subject, subject);
    EXPECT_THAT(support::read(file()), testing::Not(HasSubstr("sesame")));
  }
}

TEST_F(AuditRoutes, LetNoStrangersFloodTheTrail) {
  constexpr int STRANGERS = 20, REQUESTS = 10;
  const cgi::Route& route = *cgi::find_route("/ormel/gateway/set");
  const auto ask = [&] {
    std::ignore = cgi::answer_locally("sid=gone", cgi::OF_SESSION,
                                      [&](JsonValue& response) { cgi::serve(route, response); });
  };
  for (int i = 0; i < STRANGERS; ++i) {
    if (fork() != 0) continue;
    for (int k = 0; k < REQUESTS; ++k) ask();
    _exit(0);
  }
  while (wait(nullptr) > 0) continue;
  ask();
  EXPECT_EQ(rows().size(), static_cast<size_t>(MOST_REFUSALS));
}

TEST(AuditCommands, AreThoseThatChangeSomething) {
  for (const ormelctl::Command& command : ormelctl::commands()) {
    ormelctl::Arguments arguments;
    const bool asks = command.run == ormelctl::user_policy;
    EXPECT_EQ(ormelctl::is_change(command, arguments), !command.reading && !asks) << command.verb;
    arguments.options["limit"] = "5";
    EXPECT_EQ(ormelctl::is_change(command, arguments), !command.reading);
    arguments.options["report"] = "";
    EXPECT_FALSE(ormelctl::is_change(command, arguments));
  }
}

}  // namespace
}  // namespace ormel::audit
