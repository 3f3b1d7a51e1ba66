#include <thread>

#include <gtest/gtest.h>

#include "libfenro/event_store.h"
#include "libmibservice/mibserver.h"
#include "unit/platform/scratch.h"

namespace fenro::test {
namespace {

const std::string TOOLS = FENRO_TOOLS_DIR;
constexpr int NOT_RUN = -1;  // of in_private_host

Outcome tool(const std::string& name, std::vector<std::string> words) {
  words.insert(words.begin(), TOOLS + "/" + name);
  return run(words);
}

TEST(Getcfg, PrintsTheValueOrTheDefault) {
  const Scratch scratch;
  const std::string file = scratch.write(
      "a.conf", "DEV_TOKEN = top\n# c\n[My Section]\nkey =  two \nempty =\n-f = dash\n");
  const std::tuple<std::vector<std::string>, int, std::string> cases[] = {
      {{"My Section", "key", "-f", file}, 0, " two \n"},
      {{"-f", file, "My Section", "key"}, 0, " two \n"},
      {{"My Section", "-f", file, "key", "-d", "x"}, 0, " two \n"},
      {{"", "DEV_TOKEN", "-f", file, "-d", ""}, 0, "top\n"},
      {{"My Section", "empty", "-f", file, "-d", "x"}, 0, "\n"},
      {{"My Section", "-f", "-f", file}, 0, "dash\n"},
      {{"My Section", "absent", "-f", file, "-d", "-d"}, 0, "-d\n"},
      {{"My Section", "absent", "-f", file, "-d", ""}, 1, "\n"},
      {{"My Section", "DEV_TOKEN", "-f", file}, 1, "\n"},
      {{"s", "k", "-f", scratch.path("missing"), "-d", "x"}, 0, "x\n"},
      {{"My Section"}, 2, ""},
      {{"My Section", "key", "-x", file}, 2, ""},
      {{"My Section", "key", "-f"}, 2, ""},
  };
  for (const auto& [words, status, out] : cases) {
    const Outcome got = tool("getcfg", words);
    EXPECT_EQ(got.status, status) << testing::PrintToString(words);
    EXPECT_EQ(got.out, out) << testing::PrintToString(words);
  }
}

// Setcfg takes the host's lock of the file; the tests keep that to themselves where they can.
int setcfg(const Scratch& host, const std::vector<std::string>& words) {
  const int status = in_private_host(host, [&] { return tool("setcfg", words).status; });
  return status == NOT_RUN ? tool("setcfg", words).status : status;
}

TEST(Setcfg, SetsOneLineAndKeepsTheOthers) {
  const std::tuple<std::string, std::vector<std::string>, std::string> cases[] = {
      {"", {"S", "k", "v"}, "[S]\nk = v\n"},
      {"", {"", "k", "v"}, "k = v\n"},
      {"[S]\nk = 1\n", {"S", "k", ""}, "[S]\nk = \n"},
      {"# a\n[S]\n; b\nk=1\nx\n\n[T]\nk = 2",
       {"S", "k", " v "},
       "# a\n[S]\n; b\nk =  v \nx\n\n[T]\nk = 2"},
      {"[S]\na = 1\n\n# of T\n[T]\nk = 2\n",
       {"S", "k", "v"},
       "[S]\na = 1\nk = v\n\n# of T\n[T]\nk = 2\n"},
      {"[S]\na = 1", {"S", "k", "v"}, "[S]\na = 1\nk = v\n"},
      {"[S]\na = 1", {"New One", "k", "v"}, "[S]\na = 1\n\n[New One]\nk = v\n"},
      {"[S]\nk = 1\n", {"", "k", "v"}, "k = v\n\n[S]\nk = 1\n"},
      {"a = 1\n[S]\nk = 1\n", {"", "k", "v"}, "a = 1\nk = v\n[S]\nk = 1\n"},
      {"[S]\r\nk = 1\r\na = 2\r\n", {"S", "k", "v"}, "[S]\r\nk = v\r\na = 2\r\n"},
      {"[S]\nk = 1\n[T]\n[S]\nk = 2\n", {"S", "k", "v"}, "[S]\nk = 1\n[T]\n[S]\nk = v\n"},
      {"[S]\nk = 1\n", {"S", "k", "-f"}, "[S]\nk = -f\n"},
      {"[S]\nk = 1\n", {"S", "k", "--v=-1"}, "[S]\nk = --v=-1\n"},
      {"[S]\nk = 1\n", {"S", "k", "a\nb = 2"}, "[S]\nk = a\n"},
      {"[S\nk = 1\n", {"S", "k", "v"}, "[S\nk = 1\n\n[S]\nk = v\n"},
  };
  const Scratch scratch;
  const Scratch host;
  for (const auto& [before, words, after] : cases) {
    SCOPED_TRACE(testing::PrintToString(words));
    const std::string file = scratch.write("a.conf", before);
    ASSERT_EQ(chmod(file.c_str(), 0644), 0);
    std::vector<std::string> all = words;
    all.insert(all.end(), {"-f", file});
    EXPECT_EQ(setcfg(host, all), 0);
    EXPECT_EQ(scratch.read("a.conf"), after);
    EXPECT_EQ(scratch.mode("a.conf"), 0644U);
    EXPECT_EQ(scratch.files(), 1U);
  }
}

TEST(Setcfg, RefusesWhatItCannotWrite) {
  const Scratch scratch;
  const Scratch host;
  const std::string file = scratch.write("a.conf", "[S]\nk = 1\n");
  const std::pair<std::vector<std::string>, int> cases[] = {
      {{"S", "a=b", "v", "-f", file}, 1},
      {{"S", "", "v", "-f", file}, 1},
      {{"S]", "k", "v", "-f", file}, 1},
      {{"S", "k\n[T]", "v", "-f", file}, 1},
      {{"S", "#k", "v", "-f", file}, 1},
      {{"S", "k", "v", "-f", scratch.path("missing/a.conf")}, 1},
      {{"S", "k", "-f", file}, 2},
      {{"S", "k", "v", "w", "-f", file}, 2},
      {{"S", "k", "v", "-f", "/tmp"}, 1},
  };
  for (const auto& [words, status] : cases)
    EXPECT_EQ(setcfg(host, words), status) << testing::PrintToString(words);
  EXPECT_EQ(scratch.read("a.conf"), "[S]\nk = 1\n");
}

TEST(Setcfg, LosesNoEditOfAnother) {
  constexpr int WRITERS = 12;
  const Scratch scratch;
  const std::string file = scratch.write("a.conf", "");
  const int status = in_private_host(Scratch{}, [&] {
    std::vector<std::jthread> writers;
    writers.reserve(WRITERS);
    for (int i = 0; i < WRITERS; ++i)
      writers.emplace_back([&, i] {
        tool("setcfg", {"S", "k" + std::to_string(i), "v", "-f", file});
      });
    return 0;
  });
  if (status == NOT_RUN) GTEST_SKIP() << "no mount namespace";
  const std::string text = scratch.read("a.conf");
  EXPECT_EQ(std::count(text.begin(), text.end(), '='), WRITERS);
}

TEST(Notify, StoresTheFilledMessage) {
  const std::tuple<std::vector<std::string>, int, std::string> cases[] = {
      {{"-l", "info", "[{0}] Added \"{2}\" of {1}.", "ORMEL Service", "PPTP", "home"},
       0,
       "[ORMEL Service] Added \"home\" of PPTP."},
      {{"-l", "warn", "{0}{9}{x}{", "{1}", "b"}, 1, "{1}{9}{x}{"},
      {{"-l", "error", "{0}", std::string(2047, 'x') + "\xc3\xa4"}, 2, std::string(2047, 'x')},
      {{"-l", "info", "plain", "-C", "C999"}, 0, "plain"},
  };
  for (const auto& [more, type, expected] : cases) {
    std::vector<std::string> words{"send", "-A", "A238", "-C", "C002", "-M", "0010", "-t", "3"};
    words.insert(words.end(), more.begin(), more.end());
    const Scratch scratch;
    const int status = in_private_host(scratch, [&] { return tool("notify", words).status; });
    if (status == NOT_RUN) GTEST_SKIP() << "no mount namespace";
    EXPECT_EQ(status, 0);
    const EventStore store{scratch.path("fenro/event.db")};
    std::string description;
    const auto take = [](void* out, int, char** values, char**) {
      *static_cast<std::string*>(out) = values[7];
      return 0;
    };
    EXPECT_TRUE(
        store.query({.type = type, .application = "A238", .category = "C002", .message_id = "0010"},
                    EventOrder::NewestFirst, 0, 0, take, &description));
    EXPECT_EQ(description, expected);
  }
}

TEST(Mibsh, CallsTheMethodBehindTheRightDot) {
  const std::string path = "@/var/run/test-" + std::to_string(getpid()) + ".sock";
  const std::string name = "Test" + std::to_string(getpid());
  for (const auto& [service, method] : {std::pair{path, "db_query"}, {name, "api.check"}}) {
    const std::string target = service + '.' + method;
    bus::Server server{service};
    server.on(method, [](std::string_view body) {
      return bus::Reply{MIB_SUCCESS, "<" + std::string{body} + ">"};
    });
    ASSERT_TRUE(server.listen());
    std::thread thread{[&] { EXPECT_EQ(server.run(), 0); }};
    EXPECT_EQ(tool("mibsh", {target, "{\"a\": 1}"}).out, "<{\"a\": 1}>\n");
    EXPECT_EQ(tool("mibsh", {target}).out, "<>\n");
    const Outcome wrong = tool("mibsh", {service + ".other"});
    EXPECT_EQ(wrong.status, MIB_IS_INVALID);
    EXPECT_EQ(std::count(wrong.err.begin(), wrong.err.end(), '\n'), 1);
    EXPECT_EQ(wrong.out, "");
    server.stop();
    thread.join();
  }
  EXPECT_EQ(tool("mibsh", {name + ".m"}).status, MIB_NOT_READY);
  for (const char* bad : {"", "noservice", ".m", "s.", "@/a/b"})
    EXPECT_EQ(tool("mibsh", {bad}).status, 64) << bad;
}

}  // namespace
}  // namespace fenro::test
