// What a stranger, or several administrators at once, could do to the web entry.
// appliance: --web
#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <future>
#include <set>
#include <sys/statvfs.h>

#include "support/tls_client.h"
#include "support/web_request.h"

using namespace ormel::test;

namespace {

constexpr std::size_t MEBIBYTE = std::size_t{1} << 20U;

std::string curl(const std::string& route, const std::string& options) {
  return piped("curl -ksS --max-time 120 -H Expect: https://localhost" + route + " " + options +
               " 2>&1")
      .out;
}

std::string status_of(const std::string& route, const std::string& options) {
  return curl(route, options + " -o /dev/null -w '%{http_code}'");
}

std::vector<std::string> parallel(std::size_t count,
                                  const std::function<std::string(std::size_t)>& work) {
  std::vector<std::future<std::string>> running;
  for (std::size_t i = 0; i < count; ++i)
    running.push_back(std::async(std::launch::async, work, i));
  std::vector<std::string> results;
  results.reserve(count);
  for (auto& one : running) results.push_back(one.get());
  return results;
}

std::string post(const std::string& route, std::size_t length,
                 const std::string& type = "application/octet-stream") {
  return "POST " + route + " HTTP/1.1\r\nHost: x\r\nContent-Type: " + type +
         "\r\nContent-Length: " + std::to_string(length) + "\r\n\r\n";
}

class WebAttack : public WebHost {
 protected:
  WebAttack() {
    std::signal(SIGPIPE, SIG_IGN);
    fs::remove_all("/run/fenro/login");
  }
  const std::string password = password_of("admin");
};

class SlowClients : public WebAttack {};

TEST_F(SlowClients, KeepNobodyOutAndEnd) {
  std::vector<TlsClient> slow(64);
  for (TlsClient& client : slow)
    ASSERT_TRUE(client.send(post("/fenro/login", 4000, "application/x-www-form-urlencoded")));
  std::atomic<bool> stop = false;
  std::thread drip([&] {
    while (!stop) {
      for (TlsClient& client : slow) client.send("a");
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
  });
  for (const char* from : {"", "--interface 127.0.0.2"})
    EXPECT_THAT(curl("/fenro/login", from + (" -d user=admin -d password=" + password)),
                StartsWith(R"({"error":0)"))
        << "beside 64 that do not end";
  const auto ended = [&] { return std::ranges::none_of(slow, &TlsClient::is_open); };
  EXPECT_TRUE(comes_true(ended, 60)) << "however long they would go on";
  stop = true;
  drip.join();
}

class Spool : public WebAttack {};

TEST_F(Spool, TakesNoMoreThanItsShare) {
  const auto used = [] {
    struct statvfs disk {};
    statvfs("/run", &disk);
    return (disk.f_blocks - disk.f_bfree) * disk.f_frsize;
  };
  const auto before = used();
  std::vector<TlsClient> greedy(60);
  for (TlsClient& client : greedy) {
    const std::size_t size = 2 * MEBIBYTE - 1;
    client.send(post("/ormel/config/import", size) + std::string(size - 1, 'x'));
  }
  EXPECT_LT(used(), before + 8 * MEBIBYTE);
  if (!std::getenv("ASAN_OPTIONS")) {  // the sanitizer keeps freed memory for a while
    const std::string resident = run({"/usr/bin/ps", "-o", "rss=", "-C", "fenro-web-gate"}).out;
    EXPECT_LT(std::stoul(resident) * 1024, 128 * MEBIBYTE);
  }
  EXPECT_THAT(curl(SHOW, "-d type=256 -d " + admin), HasSubstr("office1"));
  write("/tmp/upload", std::string(MEBIBYTE, 'u'));
  EXPECT_THAT(curl("/ormel/config/check", "-F " + admin + " -F ovpn=@/tmp/upload"),
              HasSubstr(R"("error":23)"));
}

class RequestLimits : public WebAttack {};

TEST_F(RequestLimits, LeaveTheWholeOfALargeFormToUploads) {
  write("/tmp/form", admin + "&type=256&x=" + std::string(60UL * 1024, 'x'));
  EXPECT_THAT(curl(SHOW, "-d @/tmp/form"), HasSubstr("office1"));
  write("/tmp/form", admin + "&type=256&x=" + std::string(64UL * 1024, 'x'));
  for (const char* more : {"", "--http1.1", "-H 'Transfer-Encoding: chunked'",
                           "--http1.1 -H 'Transfer-Encoding: chunked'"})
    for (const std::string route : {SHOW, "/fenro/login", "/ormel/privilege/set"})
      EXPECT_EQ(status_of(route, std::string("-d @/tmp/form ") + more), "413") << route;
}

TEST_F(RequestLimits, RefuseFormsOfCountlessFieldsBeforeAProgramStarts) {
  std::string fields, files, few;
  for (int i = 0; i < 200000; ++i) fields += "&v" + std::to_string(i) + "=";
  for (int i = 0; i < 20000; ++i) {
    files += part("f" + std::to_string(i), "x", "x");
    if (i < 100) few = files;
  }
  const std::string multipart =
      " -H 'Content-Type: multipart/form-data; boundary=edge' --data-binary @/tmp/form";
  write("/tmp/form", admin + fields.substr(0, 2 * MEBIBYTE - 100));
  fs::remove(LOG);
  EXPECT_EQ(status_of("/ormel/config/check", "-d @/tmp/form"), "413");
  write("/tmp/form", part("sid", "x") + files + "--edge--\r\n");
  EXPECT_EQ(status_of("/ormel/config/check", multipart), "413");
  EXPECT_FALSE(fs::exists(LOG));
  write("/tmp/form", part("sid", "x") + few + "--edge--\r\n");
  EXPECT_THAT(curl("/ormel/config/check", multipart), HasSubstr(R"("error":39)"));
  EXPECT_EQ(uploads(), 0U);
}

class ParallelAdds : public WebAttack {};

TEST_F(ParallelAdds, StoreWhatTheyAnswer) {
  const auto answers = parallel(64, [this](std::size_t i) {
    return curl("/ormel/config/add",
                "-d " + admin +
                    " -d type=PPTP -d user=bob -d pass=secret -d host=192.0.2.7 -d name=p" +
                    std::to_string(i));
  });
  const auto with = [&](const char* code) {
    return std::ranges::count_if(answers, [code](const std::string& answer) {
      return answer.find(code) != std::string::npos;
    });
  };
  EXPECT_EQ(with(R"("error":0})"), 15) << "sixteen of a user's own, of which one was there";
  EXPECT_EQ(with(R"("error":43,)"), 49);
  std::set<std::string> profiles;
  std::ifstream in(VPN_CONF);
  for (std::string line; std::getline(in, line);)
    if (line.starts_with("[PPTP_CLIENT")) profiles.insert(line);
  EXPECT_EQ(profiles.size(), 16U);
}

class ParallelTunnels : public WebAttack {};

// The start takes until it is let go; a stop that did not wait for it would be undone by it.
TEST_F(ParallelTunnels, LetADisconnectWaitForTheConnectOfItsProfile) {
  write("/etc/init.d/vpn_pptp_client.sh",
        "#!/bin/sh\n[ \"$1\" != start ] || until [ -e /tmp/go ]; do sleep 0.05; done\necho "
        "\"vpn_pptp_client.sh|$1\" >>" +
            std::string(CALLS) + "\n",
        0755);
  const std::string form = "-d type=PPTP -d index=1 -d " + admin;
  auto connect = std::async(std::launch::async, curl, "/ormel/config/connect", form);
  EXPECT_TRUE(comes_true([] { return conf_value("PPTP_CLIENT1", "Enable") == "TRUE"; }));
  auto disconnect = std::async(std::launch::async, curl, "/ormel/config/disconnect",
                               "-F type=pptp -F index=1 -F " + admin);
  EXPECT_FALSE(comes_true([] { return conf_value("PPTP_CLIENT1", "Enable") == "FALSE"; }, 1));
  EXPECT_THAT(curl(SHOW, "-d type=256 -d " + admin), HasSubstr("office1")) << "others do not wait";
  write("/tmp/go", "");
  connect.get();
  disconnect.get();
  const auto calls = recorded("vpn_pptp_client.sh");
  ASSERT_FALSE(calls.empty());
  EXPECT_EQ(calls.back(), "stop");
  EXPECT_EQ(conf_value("PPTP_CLIENT1", "Enable"), "FALSE");
}

TEST_F(ParallelTunnels, AreAllOnThatWereConnectedAtOnce) {
  record_calls("/etc/init.d/vpn_pptp_client.sh");
  std::string all;
  for (int i = 1; i <= 6; ++i) all += pptp_client(i);
  write(VPN_CONF, all);
  parallel(6, [&](std::size_t i) {
    return curl("/ormel/config/connect",
                "-d type=PPTP -d " + admin + " -d index=" + std::to_string(i + 1));
  });
  for (int i = 1; i <= 6; ++i)
    EXPECT_EQ(conf_value("PPTP_CLIENT" + std::to_string(i), "Enable"), "TRUE") << i;
}

class LogArchive : public WebAttack {};

TEST_F(LogArchive, IsGoneOnceItHasBeenSent) {
  const auto answers = parallel(3, [this](std::size_t) {
    return curl("/ormel/log/dump", "-d " + admin + " | tar -tzf - | grep -c state/routes");
  });
  EXPECT_THAT(answers, Each(StartsWith("1")));
  EXPECT_FALSE(fs::exists("/tmp/ormel_dump_log.tar.gz"));
  EXPECT_THAT(curl("/ormel/log/dump", "-d " + guest), HasSubstr(R"("error":39)"));
}

}  // namespace
