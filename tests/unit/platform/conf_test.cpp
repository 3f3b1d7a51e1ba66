#include <array>
#include <atomic>
#include <climits>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <thread>

#include <fenro/conf.h>
#include <fenro/event_log.h>
#include <gtest/gtest.h>

#include "base/c_memory.h"
#include "libfenro/ini.h"
#include "libfenro/ini_file.h"
#include "support/wait.h"
#include "unit/platform/scratch.h"

namespace fenro::test {
namespace {

using namespace std::string_literals;
using Conf = std::unique_ptr<Conf_dir, FreeWith<Conf_Dir_Free>>;

Conf load(const std::string& path) {
  return Conf{Conf_Dir_Load(path.c_str())};
}

// An object begun from nothing, as the program begins the file it writes.
Conf begin(const std::string& path) {
  Conf conf{c_array<Conf_dir>(1).release()};
  path.copy(conf->file, sizeof conf->file - 1);
  return conf;
}

TEST(ConfDir, EveryByteOfAValueSurvives) {
  std::string bytes;
  for (int c = 1; c < 256; ++c)
    if (c != '\r' && c != '\n') bytes.push_back(static_cast<char>(c));
  const Scratch scratch;
  const Conf conf = begin(scratch.path("a.conf"));
  const std::vector<std::string> values{"",       " ",       "  two before and behind  ",
                                        "=",      "= a = b", "[x]",
                                        "#1",     "\ttab\t", "\"quoted\"",
                                        "\\n\\r", bytes,     std::string(65536, 'x')};
  for (std::size_t i = 0; i < values.size(); ++i)
    Conf_Dir_Set_Str(conf.get(), "s", ("key" + std::to_string(i)).c_str(), values[i].c_str());
  ASSERT_EQ(Conf_Dir_Wirte_File(conf.get()), 0);
  const Conf again = load(scratch.path("a.conf"));
  EXPECT_EQ(again->n, static_cast<int>(values.size()));
  for (std::size_t i = 0; i < values.size(); ++i)
    EXPECT_EQ(Conf_Dir_Get_Str(again.get(), "s", ("key" + std::to_string(i)).c_str(), "absent"),
              values[i]);
}

TEST(ConfDir, ReadsWhatItCanOfADamagedFile) {
  const std::tuple<std::string, const char*, const char*> cases[] = {
      {"", "a", "absent"},
      {"[a]\nk = v", "a", "v"},                            // no line break at the end
      {"[a]\r\nk = v\r\n", "a", "v"},                      // of another system
      {"[a]\nk=v\n", "a", "v"},                            // by hand, without blanks
      {"[a]\nk =  v \n", "a", " v "},                      // only one blank belongs to the form
      {"\xEF\xBB\xBF[a]\nk = v\n", "a", "v"},              // byte order mark
      {"[a]\nk = 1\n[b]\nk = 2\n[a]\nk = 3\n", "a", "3"},  // the last one counts
      {"[a]\nx\n = y\n#k = c\n;k = c\nk = v\n", "a", "v"},
      {"[a]\nk = 1\n[b\nk = 2\n", "a", "1"},  // a lost name gives its keys to no neighbour
      {"[a]\nk = 1\n[b\0c]\nk = 2\n"s, "a", "1"},
      {"[a]\nk\0x = 2\nk = 1\n"s, "a", "1"},
      {"[a]\nk = v\0w\n"s, "a", "v"},
      {"[a]\nk = v\rkey = w\n", "a", "v"},
      {"[a] ; comment\nk = v\n", "a", "v"},
      {"k = v\n[a]\nk = w\n", "", "v"},
      {"[a]\nk = v\n" + std::string(4096, '\0'), "a", "v"},  // a block never reached the disk
  };
  const Scratch scratch;
  for (const auto& [text, section, expected] : cases) {
    SCOPED_TRACE(text);
    const Conf conf = load(scratch.write("a.conf", text));
    std::array<char, 32> buffer{};
    EXPECT_STREQ(Conf_Dir_Get_Str(conf.get(), section, "k", "absent"), expected);
    Get_Private_Profile_String(section, "k", "absent", buffer.data(), buffer.size(), conf->file);
    EXPECT_STREQ(buffer.data(), expected);
  }
}

TEST(ConfDir, NothingToReadIsAnEmptyObject) {
  const Scratch scratch;
  const std::string fifo = scratch.path("fifo");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  for (const std::string& path :
       {scratch.path("missing"), scratch.path(""), fifo, std::string(1024, 'x')}) {
    const Conf conf = load(path);
    EXPECT_EQ(conf->n, 0);
    EXPECT_EQ(Conf_Dir_Get_Int(conf.get(), "a", "k", 5), 5);
  }
  EXPECT_EQ(load(std::string(1024, 'x'))->file[0], '\0');  // not the name of another file
}

TEST(ConfDir, ReadsNumbersAndTruthValues) {
  const std::tuple<const char*, int, int> cases[] = {
      {"", 0, 0},      {"TRUE", 0, 1}, {"1194,443", 1194, 0},
      {"on", 0, 0},    {"true", 0, 1}, {"-7 clients", -7, 0},
      {"FALSE", 0, 0}, {"YES", 0, 1},  {"2147483647", INT_MAX, 0},
      {"1", 1, 1},     {"yes", 0, 1},  {"2147483648", INT_MAX, 0},
  };
  const Scratch scratch;
  const Conf conf = begin(scratch.path("a.conf"));
  for (const auto& [text, number, truth] : cases) {
    Conf_Dir_Set_Str(conf.get(), "s", "k", text);
    EXPECT_EQ(Conf_Dir_Get_Int(conf.get(), "s", "k", 42), number) << text;
    EXPECT_EQ(Conf_Dir_Get_Bool(conf.get(), "s", "k", 1 - truth), truth) << text;
  }
  Conf_Dir_Set_Str(conf.get(), "s", "k", "-99999999999999999999");
  EXPECT_EQ(Conf_Dir_Get_Int(conf.get(), "s", "k", 42), INT_MIN);
  EXPECT_EQ(Conf_Dir_Get_Bool(conf.get(), "s", "absent", 7), 7);
}

TEST(ConfDir, NoNameOrValueMakesAnotherKeyAppear) {
  const Scratch scratch;
  const Conf conf = begin(scratch.path("a.conf"));
  const char* const names[][2] = {{"a\n[b", "k"}, {"a]b", "k"}, {"a\rb", "k"},        {"a", "k\nx"},
                                  {"a", "k=x"},   {"a", "[k"},  {"a", "#k"},          {"a", ";k"},
                                  {"a", ""},      {"a", "k\r"}, {"", "\xEF\xBB\xBFk"}};
  for (const auto& [section, key] : names) Conf_Dir_Set_Str(conf.get(), section, key, "v");
  EXPECT_EQ(conf->n, 0);
  Conf_Dir_Set_Str(conf.get(), "a", "k", "v\nother = 1\n[b]");
  Conf_Dir_Set_Str(conf.get(), "a", "l", "w\r[b]");
  ASSERT_EQ(Conf_Dir_Wirte_File(conf.get()), 0);
  EXPECT_EQ(scratch.read("a.conf"), "[a]\nk = v\nl = w\n");
}

TEST(ConfDirWrite, KeepsModeAndLink) {
  const Scratch scratch;
  const Conf fresh = begin(scratch.path("new.conf"));
  ASSERT_EQ(Conf_Dir_Wirte_File(fresh.get()), 0);
  EXPECT_EQ(scratch.mode("new.conf"), 0600U);
  scratch.write("real.conf", "[a]\nk = 1\n");
  ASSERT_EQ(chmod(scratch.path("real.conf").c_str(), 0640), 0);
  std::filesystem::create_symlink("real.conf", scratch.path("link.conf"));
  const Conf conf = load(scratch.path("link.conf"));
  Conf_Dir_Set_Str(conf.get(), "a", "k", "2");
  ASSERT_EQ(Conf_Dir_Wirte_File(conf.get()), 0);
  EXPECT_EQ(scratch.read("real.conf"), "[a]\nk = 2\n");
  EXPECT_EQ(scratch.mode("real.conf"), 0640U);
  EXPECT_TRUE(std::filesystem::is_symlink(scratch.path("link.conf")));
}

TEST(ConfDirWrite, AFullDiskLeavesTheOldFileAlone) {
  const Scratch scratch;
  const Conf conf = load(scratch.write("a.conf", "[a]\nk = old\n"));
  Conf_Dir_Set_Str(conf.get(), "a", "k", std::string(100'000, 'x').c_str());
  const pid_t child = fork();
  if (child == 0) {
    const rlimit limit{4096, 4096};
    signal(SIGXFSZ, SIG_IGN);  // so that the limit shows as a failed write, as a full disk does
    setrlimit(RLIMIT_FSIZE, &limit);
    _exit(Conf_Dir_Wirte_File(conf.get()) == 0 ? 0 : 1);
  }
  EXPECT_EQ(end_of(child), 1);
  EXPECT_EQ(scratch.read("a.conf"), "[a]\nk = old\n");
  EXPECT_EQ(scratch.files(), 1U);
}

TEST(ConfRemoveSection, TakesTheSectionAndNothingElse) {
  const std::pair<const char*, const char*> cases[] = {
      {"# head\n[a]\nk = 1\n\n[b]\nk = 2\n\n[c]\nk = 3\n", "# head\n[a]\nk = 1\n\n[c]\nk = 3\n"},
      {"[a]\nk = 1\n\n[b]\nk = 2\n", "[a]\nk = 1\n"},
      {"[b]\nk = 2\n; of the next\n[c]\nx\n", "; of the next\n[c]\nx\n"},
      {"[b]\nk = 1\n[a]\nk = 2\n[b]\nl = 3\n", "[a]\nk = 2\n"},
      {"[a]\nk = 1", "[a]\nk = 1"},
      {"[b]\n", ""},
  };
  for (const auto& [before, after] : cases) EXPECT_EQ(ini::without_section(before, "b"), after);
}

TEST(GetPrivateProfileString, CutsToTheBuffer) {
  const Scratch scratch;
  const std::string path = scratch.write("a.conf", "[s]\nk = 12345678\ne =\n");
  std::array<char, 8> buffer{};
  const auto get = [&](const char* key, int size, const char* fallback) {
    return Get_Private_Profile_String("s", key, fallback, buffer.data(), size, path.c_str());
  };
  EXPECT_EQ(get("k", 8, ""), 7);
  EXPECT_STREQ(buffer.data(), "1234567");
  EXPECT_EQ(get("k", 1, ""), 0);
  EXPECT_EQ(get("k", 0, ""), 0);
  EXPECT_EQ(get("e", 8, "fallback"), 0);  // present, though empty
  EXPECT_EQ(get("absent", 8, "other"), 5);
  EXPECT_STREQ(buffer.data(), "other");
  EXPECT_EQ(get("absent", 8, nullptr), 0);
}

// Whether the kernel lists somebody who waits for a lock on a file of the folder.
bool someone_waits(const std::string& locks) {
  const std::string list = support::read("/proc/locks");
  for (const auto& file : std::filesystem::directory_iterator(locks)) {
    struct stat info {};
    if (stat(file.path().c_str(), &info) != 0) continue;
    const std::string inode = ':' + std::to_string(info.st_ino) + ' ';
    for (size_t at = 0; (at = list.find("-> ", at)) != std::string::npos; ++at)
      if (const size_t found = list.find(inode, at); found < list.find('\n', at)) return true;
  }
  return false;
}

TEST(IniLock, AWriterWaitsForEveryReaderAndReadersForAWriter) {
  using ini::Lock;
  const Scratch scratch;
  const std::string locks = scratch.path("locks");
  const std::string path = scratch.write("a.conf", "");
  const auto take = [&](Lock kind, const std::string& name) {
    return Fd{ini::lock_file(locks, name.c_str(), kind)};
  };
  const auto waits = [&](Fd held, Lock kind) {
    std::atomic<bool> taken{false};
    std::thread other{[&] { taken = take(kind, scratch.path("./a.conf")).operator bool(); }};
    EXPECT_TRUE(support::comes_true([&] { return taken || someone_waits(locks); }));
    const bool waited = !taken;
    held.reset();
    other.join();
    return waited && taken;
  };
  ASSERT_TRUE(take(Lock::Write, path));
  EXPECT_TRUE(waits(take(Lock::Read, path), Lock::Write));
  EXPECT_TRUE(waits(take(Lock::Write, path), Lock::Read));
  EXPECT_TRUE(waits(take(Lock::Write, path), Lock::Write));
  EXPECT_FALSE(waits(take(Lock::Read, path), Lock::Read));
  const Fd other_file = take(Lock::Write, scratch.path("b.conf"));
  EXPECT_TRUE(take(Lock::Write, path));
  EXPECT_EQ(scratch.mode("locks"), 0700U);
}

// One run loads, another writes, the first saves its changes to what it loaded.
TEST(ThreeWaySave, KeepsWhatOthersWroteMeanwhile) {
  const std::tuple<const char*, const char*, const char*, const char*> cases[] = {
      {"[a]\nk = 1\n\n[b]\nip = x\nu = 1\n", "[a]\nk = 1\n\n[b]\nip = y\nu = 2\n",
       "[a]\nk = 2\n\n[b]\nip = x\n", "[a]\nk = 2\n\n[b]\nip = y\n"},  // "u" is left out
      {"[a]\nk = 1\n", "[a]\nk = 3\nl = 1\n\n[c]\nk = 1\n", "[a]\nk = 2\n",
       "[a]\nk = 2\nl = 1\n\n[c]\nk = 1\n"},
      {"[a]\nk = 1\n\n[b]\nk = 1\n", "[a]\nk = 1\n", "[a]\nk = 2\n\n[b]\nk = 1\n",
       "[a]\nk = 2\n"},  // they removed b
      {"[a]\nk = 1\n[b]\nk = 1\nl = 1\n", "[a]\nk = 1\n", "[b]\nk = 2\nl = 1\n",
       "[b]\nk = 2\nl = 1\n"},
      // We removed it.
      {"[a]\nk = 1\n\n[b]\nk = 1\n", "[a]\nk = 1\n\n[b]\nk = 2\nl = 3\n", "[a]\nk = 1\n",
       "[a]\nk = 1\n"},
      {"[a]\nk = 1\n", "", "[a]\nk = 1\nl = 2\n", "[a]\nk = 1\nl = 2\n"},  // a file that is gone
  };
  for (const auto& [base, theirs, mine, expected] : cases) {
    SCOPED_TRACE(theirs);
    const Scratch scratch;
    const std::string path = scratch.write("a.conf", base);
    load(path).reset();
    scratch.write("a.conf", theirs);
    load(path).reset();  // a look in between is not what was loaded
    const Conf conf = begin(path);
    const Conf picture = load(scratch.write("mine", mine));
    for (int i = 0; i < picture->n; ++i)
      Conf_Dir_Set_Str(conf.get(), picture->section[i], picture->key[i], picture->val[i]);
    ASSERT_EQ(Conf_Dir_Wirte_File(conf.get()), 0);
    EXPECT_EQ(scratch.read("a.conf"), expected);
    ASSERT_EQ(Conf_Dir_Wirte_File(conf.get()), 0);  // what others added is theirs still
    EXPECT_EQ(scratch.read("a.conf"), expected);
  }
}

TEST(ThreeWaySave, LosesNoKeyOfAHookThatWritesAtOnce) {
  constexpr int ROUNDS = 500;
  const Scratch scratch;
  const std::string path = scratch.write("a.conf", "[A]\nk = 0\n\n[B]\nip = 0\n");
  const pid_t hook = fork();
  if (hook == 0) {
    bool written = true;
    for (int i = 1; i <= ROUNDS && written; ++i)
      written = ini::write_value(path, "B", "ip", std::to_string(i)) &&
                ini::read_value(path.c_str(), "B", "ip") == std::to_string(i);
    _exit(written ? 0 : 1);
  }
  for (int i = 1; i <= ROUNDS; ++i) {
    const Conf conf = load(path);
    Conf_Dir_Set_Int(conf.get(), "A", "k", i);
    ASSERT_EQ(Conf_Dir_Wirte_File(conf.get()), 0);
  }
  EXPECT_EQ(end_of(hook), 0) << "what a hook wrote was not there when it looked";
  EXPECT_EQ(scratch.read("a.conf"), "[A]\nk = 500\n\n[B]\nip = 500\n");
}

TEST(StaleTemporaries, GoAtTheNextWriteUnlessTheirWriterLives) {
  const Scratch scratch;
  const std::string path = scratch.write("a.conf", "[a]\nk = 1\n");
  for (const char* name : {"a.conf.tmp-Ab12Cd", "a.conf.tmp-living", "a.conf.backup",
                           "a.conf.tmp-longer1", "b.conf.tmp-Ab12Cd"})
    scratch.write(name, "secret");
  const Fd living{open(scratch.path("a.conf.tmp-living").c_str(), O_RDWR | O_CLOEXEC)};
  ASSERT_EQ(flock(living.get(), LOCK_EX), 0);
  ASSERT_TRUE(ini::write_value(path, "a", "k", "2"));
  EXPECT_EQ(scratch.read("a.conf"), "[a]\nk = 2\n");
  EXPECT_FALSE(std::filesystem::exists(scratch.path("a.conf.tmp-Ab12Cd")));
  EXPECT_EQ(scratch.files(), 5U);
}

TEST(TornOptions, AreAsBeforeTheWriterThatDied) {
  using ini::Lock;
  const std::pair<const char*, const char*> cases[] = {
      {"", "{\"gw\": {\"n\": \"a}\"}}"},
      {"{\"gw\": {\"n\": \"b", "{\"gw\": {\"n\": \"a}\"}}"},
      {"{\"gw\": {\"n\": 1}", "{\"gw\": {\"n\": \"a}\"}}"},
      {"{\"gw\": {\"n\": \"\\\"{\"}}", "{\"gw\": {\"n\": \"\\\"{\"}}"},  // all was written
  };
  for (const auto& [left, expected] : cases) {
    SCOPED_TRACE(left);
    const Scratch scratch;
    const std::string locks = scratch.path("locks");
    const std::string path = scratch.write("o.conf", "{\"gw\": {\"n\": \"a}\"}}");
    const pid_t writer = fork();
    if (writer == 0) {
      if (ini::lock_file(locks, path.c_str(), Lock::Write) < 0) _exit(1);
      scratch.write("o.conf", left);
      _exit(0);  // the lock is never given back
    }
    ASSERT_EQ(end_of(writer), 0);
    const int lock = ini::lock_file(locks, path.c_str(), Lock::Read);
    EXPECT_EQ(scratch.read("o.conf"), expected);
    EXPECT_TRUE(ini::unlock_file(lock));
    EXPECT_EQ(scratch.files(), 2U) << "no copy is left";
    // A writer that gives its lock back has meant what it left.
    const int again = ini::lock_file(locks, path.c_str(), Lock::Write);
    EXPECT_EQ(scratch.files(), 3U);
    scratch.write("o.conf", "");
    EXPECT_TRUE(ini::unlock_file(again));
    EXPECT_TRUE(ini::unlock_file(ini::lock_file(locks, path.c_str(), Lock::Read)));
    EXPECT_EQ(scratch.read("o.conf"), "");
  }
}

TEST(HostileLocks, AFifoInTheirPlaceIsRefusedAtOnce) {
  const Scratch scratch;
  const std::string locks = scratch.path("locks");
  const std::string path = scratch.write("a.conf", "");
  EXPECT_TRUE(ini::unlock_file(ini::lock_file(locks, path.c_str(), ini::Lock::Write)));
  for (const auto& entry : std::filesystem::directory_iterator{locks}) {
    ASSERT_EQ(unlink(entry.path().c_str()), 0);
    ASSERT_EQ(mkfifo(entry.path().c_str(), 0600), 0);
  }
  EXPECT_EQ(ini::lock_file(locks, path.c_str(), ini::Lock::Write), -1);
}

TEST(ReadOnlyConfig, IsToldOnceAnOutage) {
  const Scratch scratch;
  const std::string path = scratch.write("a.conf", "[a]\nk = 1\n");
  const auto events = [](const char* text) {
    return naslog_event_query_count_ex(0, "", "", "", "", "", text, "", "");
  };
  const int result = in_private_host(scratch, [&] {
    const auto save = [&](int value) {
      const Conf conf = load(path);
      Conf_Dir_Set_Int(conf.get(), "a", "k", value);
      return Conf_Dir_Wirte_File(conf.get()) == 0;
    };
    if (mount("none", scratch.path("").c_str(), "tmpfs", 0, nullptr) != 0) return NO_NAMESPACE;
    scratch.write("a.conf", "[a]\nk = 1\n");
    const auto read_only = [&](unsigned long flag) {
      return mount("none", scratch.path("").c_str(), nullptr, MS_REMOUNT | flag, nullptr) == 0;
    };
    if (!read_only(MS_RDONLY) || save(2) || save(3)) return 1;
    const std::string mark = "/run/fenro/settings_fault";
    std::ifstream file{mark};
    std::string where, why;
    std::getline(file, where);
    std::getline(file, why);
    if (where != path || why != "Read-only file system") return 2;
    if (events(("Settings cannot be saved: " + path + ": Read-only file system").c_str()) != 1)
      return 3;
    if (!read_only(0) || !save(4) || std::filesystem::exists(mark)) return 4;
    return events(("Settings can be saved again: " + path).c_str()) == 1 ? 0 : 5;
  });
  if (result == -1) GTEST_SKIP() << "no mount namespace here";
  EXPECT_EQ(result, 0);
}

}  // namespace
}  // namespace fenro::test
