// An appliance that can become a member: the cloud on its loopback, with an authority that it trusts, and stand-ins
// that answer for the daemons and tools of the membership with what the test has put into files.
#pragma once

#include <signal.h>

#include "support/web_request.h"

namespace ormel::test {

inline constexpr const char* CLOUD = "/run/cloud";      // what the cloud knows, and what it was asked
inline constexpr const char* ANSWERS = "/run/answers";  // one file for each method
inline constexpr const char* APPLICATION = "/opt/ormel";
inline constexpr const char* APPLICATION_LOG = "/opt/ormel/var/log/ORMEL.log";
inline constexpr const char* PELMAR_CONF = "/etc/config/ormel/pelmar.conf";
inline constexpr const char* TAMID_CONF = "/etc/config/ormel/tamid.conf";
inline constexpr const char* AGENT_CONF = "/etc/config/ormel/cloudagent.cfg";
inline constexpr const char* EDGE = "POST /dalnet/morvi/api/v1/edge";
inline constexpr const char* ME = "GET /v1.1/me";

// A program of the test's own, ended with it.
class Child {
 public:
  explicit Child(const std::function<int()>& run) : pid_{fork()} {
    if (pid_ != 0) return;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    _exit(run());
  }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;
  ~Child() {
    ::kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }

 private:
  pid_t pid_;
};

// A service that answers each method with the file of its name, and fails for one that has none.
inline int serve_files(const char* service, const std::vector<std::string>& methods) {
  fenro::bus::Server server{service};
  for (const std::string& method : methods) {
    server.on(method, [method](std::string_view body) -> fenro::bus::Reply {
      std::ofstream(CALLS, std::ios::app) << method << '|' << body << '\n';
      const fs::path file = fs::path(ANSWERS) / method;
      if (!fs::exists(file)) return {MIB_NOT_READY, ""};
      return {MIB_SUCCESS, read(file)};
    });
  }
  while (!server.listen()) usleep(10000);
  return server.run();
}

inline void answer(const std::string& method, const std::string& text) {
  write(fs::path(ANSWERS) / method, text);
}

inline void no_answer(const std::string& method) {
  fs::remove(fs::path(ANSWERS) / method);
}

// What becomes of one of the cloud's operations from now on; an empty fault heals all.
inline void fault(const std::string& operation, const std::string& what) {
  write(fs::path(CLOUD) / "faults.json", operation.empty() ? "{}" : "{\"" + operation + "\": " + what + '}');
}

inline void set_value(const char* file, const std::string& section, const std::string& key, const std::string& value) {
  run({"/sbin/setcfg", section, key, value, "-f", file});
}

inline std::string value(const char* file, const std::string& section, const std::string& key) {
  std::string text = run({"/sbin/getcfg", section, key, "-f", file}).out;
  if (!text.empty()) text.pop_back();
  return text;
}

inline std::string joined(const std::string& key) {
  return value(PELMAR_CONF, "Join Pelmar", key);
}

inline std::string account(const std::string& key) {
  return value(TAMID_CONF, "Vantri ID Service", key);
}

inline std::string log() {
  return read(APPLICATION_LOG);
}

class CloudHost : public WebHost {
 protected:
  static void SetUpTestSuite() {
    fs::create_directories(CLOUD);
    fs::create_directories(ANSWERS);
    ASSERT_EQ(run({ORMEL_CERTIFICATES, CLOUD, ORMEL_CLOUD_DOMAIN}, {"PATH=/usr/bin:/bin"}).status, 0);
    std::ofstream hosts("/etc/hosts", std::ios::app);
    std::ifstream names(std::string(CLOUD) + "/hosts");
    for (std::string name; std::getline(names, name);) hosts << "127.0.0.1 " << name << '\n';
    std::ofstream("/etc/ssl/certs/ca-certificates.crt", std::ios::app) << read(std::string(CLOUD) + "/ca.pem");
    run({"/usr/bin/pkill", "-KILL", "-f", "/usr/lib/fenro/pelmar-agentd"});
  }

  void SetUp() override {
    WebHost::SetUp();
    for (const char* file : {PELMAR_CONF, TAMID_CONF, AGENT_CONF, "/run/cloud/requests", "/run/cloud/faults.json"}) {
      fs::remove(file);
    }
    fs::remove_all(APPLICATION);
    for (const char* folder : {"/etc/cloudagent", "/etc/system", "/opt/www", "/var/log"}) {
      fs::create_directories(std::string(APPLICATION) + folder);
    }
    write("/etc/config/pakrix.conf", "[ORMEL]\nInstall_Path = /opt/ormel\n\n[Hollex]\nInstall_Path = \n");
    write("/opt/ormel/opt/www/redirect.html", "<script>tell(\"$RESULT\"); also(\"$RESULT\")</script>");
    write("/etc/platform.conf", "Platform = X86_KVM\n");
    write("/etc/config/TZ", "CET-1\nCEST\n");
    for (const char* script : {"pelmar_express.sh", "pelmar_cloudagent.sh"}) {
      record_calls(std::string("/etc/init.d/") + script);
    }
    tool("/usr/sbin/get_hwsn", "echo SN-1");
    tool("/usr/local/bin/skarn_organization_tool", R"(echo '{"result":[{"organization_site_id":"site-1"},{}]}')");
    for (const auto& file : fs::directory_iterator(ANSWERS)) fs::remove(file);
    answer("Get_cloudtoken", R"({"error":0,"data":"cloud-token"})");
    answer("Get_pelmartoken", R"({"error":0,"data":"pelmar-token"})");
    answer("Save_cloudtoken", R"({"error":0})");
    write(std::string(CLOUD) + "/world.json", R"({"account": {"display_name": "Ann O.", "email": "ann@example.org",
        "site": "GLOBAL"}, "organizations": [], "groups": [{"groupId": "g1", "hubs": []}, {"groupId": "g2", "hubs":
        [{}]}], "address": "10.99.0.7", "taken": ["10.99.0.9", "192.168.77.9"], "suggestion": "10.99.0.10/24"})");
    start_cloud("server");
  }

  // Another one takes the place of the cloud that runs.
  void start_cloud(const std::string& certificate) {
    cloud_.reset();
    cloud_ = std::make_unique<Child>([&] {
      const std::string base = std::string(CLOUD) + '/' + certificate;
      execl(ORMEL_CLOUD, ORMEL_CLOUD, CLOUD, "127.0.0.1", "443", (base + ".pem").c_str(), (base + ".key").c_str(),
            nullptr);
      return 127;
    });
    const auto listens = [] {
      return read("/proc/net/tcp").find("0100007F:01BB 00000000:0000 0A") != std::string::npos;
    };
    ASSERT_TRUE(comes_true(listens)) << "nothing listens on port 443";
  }

  static void tool(const std::string& path, const std::string& command) {
    write(path, "#!/bin/sh\nprintf '%s\\n' \"$(basename \"$0\")|$*\" >>/var/log/network/calls\n" + command + '\n',
          0755);
  }

  WebReply pelmar(const std::string& route, const std::string& query = {}) const {
    return cgi("/ormel/pelmar/" + route, admin + query);
  }
  WebReply login(const std::string& result = "encoded") const {
    return cgi("/ormel/oauth_login", admin + "&result=" + result);
  }
  WebReply join(const std::string& region = "g2") const {
    return pelmar("device_register", "&org_ID=org-1&org_name=An+%22Org%22&region_ID=" + region + "&region_name=North");
  }

 private:
  std::unique_ptr<Child> cloud_;
  Child network_service_{[] {
    return serve_files("ormel_network_service",
                       {"Get_cloudtoken", "Get_pelmartoken", "Save_cloudtoken", "Update_and_check_timeout"});
  }};
  Child express_{[] {
    return serve_files("pelmar_expressd", {"GetCloudStatus", "GetDeviceToken", "GetHubInfo", "GetIpsecStatus",
                                           "GetSupernodeDevices", "GetSupernodeRemaining", "ResetVirtualInterface",
                                           "SupernodeRecentBillingDailyTraffic", "UpdateNetworkInterfaces"});
  }};
};

}  // namespace ormel::test
