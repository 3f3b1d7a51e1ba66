// HTTP statuses and certificates, and the daemons of tunnels by their command lines.
#include <csignal>
#include <netinet/in.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include <gtest/gtest.h>

#include "ormel/base/crypto.h"
#include "ormel/base/error.h"
#include "ormel/base/handle.h"
#include "ormel/base/http.h"
#include "ormel/host/vpn_process.h"
#include "support/certificates.h"
#include "support/wait.h"

namespace ormel {
namespace {

// What a request gives to which a web server on the loopback has one answer.
int fetch(const std::string& answer, std::string& out) {
  const Fd listener{socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)};
  sockaddr_in place{};
  place.sin_family = AF_INET;
  place.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof place;
  auto* const address = reinterpret_cast<sockaddr*>(&place);
  EXPECT_EQ(bind(listener.get(), address, size) + listen(listener.get(), 1), 0);
  EXPECT_EQ(getsockname(listener.get(), address, &size), 0);
  const std::jthread server([&] {
    const Fd client{accept(listener.get(), nullptr, nullptr)};
    char request[4096];
    std::ignore = recv(client.get(), request, sizeof request, 0);
    std::ignore = send(client.get(), answer.data(), answer.size(), MSG_NOSIGNAL);
  });
  const std::string url = "http://127.0.0.1:" + std::to_string(ntohs(place.sin_port)) + '/';
  Curl handle = new_curl();
  curl::api()->easy_setopt(handle.get(), CURLOPT_URL, url.c_str());
  curl::api()->easy_setopt(handle.get(), CURLOPT_PROXY, "");
  return system::easycurl(std::move(handle), out);
}

TEST(HttpAnswers, CountWithAStatusOfSuccess) {
  std::string out;
  EXPECT_EQ(system::easycurl(Curl{}, out), ERR_EASYCURL_FAIL);
  const std::pair<const char*, int> rows[] = {
      {"200", NO_ERROR}, {"299", NO_ERROR}, {"300", ERR_HTTP_ERROR}, {"404", ERR_HTTP_ERROR}};
  for (const auto& [status, code] : rows) {
    const std::string head = std::string("HTTP/1.1 ") + status + " x\r\nConnection: close\r\n";
    out.clear();
    EXPECT_EQ(fetch(head + "Content-Length: 2\r\n\r\nhi", out), code) << status;
    EXPECT_EQ(out, "hi");
  }
}

TEST(Pem, IsToldApart) {
  using support::CERTIFICATE;
  using support::REVOCATIONS;
  const std::string damaged = std::string(CERTIFICATE).replace(40, 1, "!");
  const std::tuple<std::string, bool, bool, size_t> rows[] = {
      {"", false, false, 0},
      {damaged, false, false, 0},
      {CERTIFICATE, true, false, 1},
      {REVOCATIONS, false, true, 0},
      {std::string("text\n") + CERTIFICATE + CERTIFICATE + damaged, true, false, 2},
  };
  for (const auto& [text, certificate, revocations, count] : rows) {
    SCOPED_TRACE(text);
    EXPECT_EQ(openssl::is_cert(text), certificate);
    EXPECT_EQ(openssl::is_crl(text), revocations);
    const auto facts = openssl::certificates_of(text);
    EXPECT_EQ(facts.size(), count);
    for (const auto& one : facts) {
      EXPECT_EQ(one.subject, "vpn");
      EXPECT_GT(one.days, 0);
    }
  }
}

TEST(VpnProcesses, AreKnownByProgramAndProfile) {
  constexpr std::tuple<std::string_view, TYPE, int> ROWS[] = {
      {{"/usr/sbin/pptpd\0-f\0client7\0", 26}, PPTP_SERVER_TYPE, 0},
      {{"pppd-pptp\0call\0pptpclient7\0", 27}, PPTP_CLIENT_TYPE, 7},
      {{"/usr/lib/fenro/openvpnclient\0FENRO\0/client1/client12\0", 53}, OVPN_CLIENT_TYPE, 12},
      {{"/usr/lib/fenro/openvpnclient\0", 29}, OVPN_CLIENT_TYPE, 0},
      {{"morvic", 6}, DROVIK_CLIENT_TYPE, 0},
      {{"sh\0/usr/sbin/pptpd\0", 19}, NONE_TYPE, 0},
      {{}, NONE_TYPE, 0},
  };
  system::VpnProcess running;
  for (const auto& [line, type, index] : ROWS) {
    SCOPED_TRACE(line);
    const system::Process& process = running.is_vpn_process(std::string(line), 5);
    EXPECT_EQ(process.type, type);
    EXPECT_EQ(process.index, index);
    EXPECT_EQ(process.pid, 5);
  }
}

// More entries than one read of the folder returns.
TEST(VpnProcesses, AreFoundAmongManyOthers) {
  constexpr int OTHERS = 250;
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  const pid_t group = fork();
  if (group == 0) {
    setpgid(0, 0);
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    int count = 0;
    while (count < OTHERS && fork() != 0) ++count;
    if (count == OTHERS) std::ignore = write(ready[1], "", 1);
    for (;;) pause();
  }
  setpgid(group, group);
  char byte = 1;
  EXPECT_EQ(read(ready[0], &byte, 1), 1);
  const pid_t daemon = fork();
  if (daemon == 0) {
    setpgid(0, group);
    execl("/bin/sh", "/usr/sbin/pppd-pptp", "-c", "sleep 60; exit", "pptpclient231", nullptr);
    _exit(1);
  }
  const bool found = support::comes_true([&] {
    system::VpnProcess running;
    EXPECT_EQ(running.update(), 0);
    return running.pidof(PPTP_CLIENT_TYPE, 231) == daemon;
  });
  ::kill(-group, SIGKILL);
  waitpid(group, nullptr, 0);
  waitpid(daemon, nullptr, 0);
  for (const int end : ready) close(end);
  EXPECT_TRUE(found);
}

TEST(VpnProcesses, BelongToOneProfile) {
  system::VpnProcess running;
  running.processes = {{2, 12, PPTP_CLIENT_TYPE},
                       {1, 11, PPTP_CLIENT_TYPE},
                       {1, 21, OVPN_CLIENT_TYPE},
                       {0, 30, OVPN_SERVER_TYPE}};
  for (const system::Process& one : running.processes)
    EXPECT_EQ(running.pidof(one.type, one.index), one.pid);
  EXPECT_EQ(running.pidof(PPTP_CLIENT_TYPE, 3), 0);
  EXPECT_EQ(running.pidof(L2TP_SERVER_TYPE, 0), 0);
}

}  // namespace
}  // namespace ormel
