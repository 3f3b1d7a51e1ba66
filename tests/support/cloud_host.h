// An appliance that can become a member: the demonstration cloud at the far end of its cable, and
// daemon, scripts and tools as they are installed.
#pragma once

#include <signal.h>

#include "support/web_request.h"

namespace ormel::test {

inline constexpr const char* CLOUD = "/run/cloud";  // what the cloud knows, and what it was asked
inline constexpr const char* CLOUD_ADDRESS = "192.168.77.254";
inline constexpr const char* MEMBER_STATE = "/var/lib/fenro/pelmar";
inline constexpr const char* CLOUD_TOKEN = "/var/lib/fenro/pelmar/cloud_token.json";
inline constexpr const char* AGENT_LINK = "/opt/ormel/etc/cloudagent/cloudagent.cfg";
inline constexpr const char* JOIN_QUERY = "&org_ID=org-1&org_name=An+%22Org%22&region_ID=";
inline constexpr const char* PELMAR_CONF = "/etc/config/ormel/pelmar.conf";
inline constexpr const char* TAMID_CONF = "/etc/config/ormel/tamid.conf";
inline constexpr const char* AGENT_CONF = "/etc/config/ormel/cloudagent.cfg";
inline constexpr const char* EDGE = "POST /dalnet/morvi/api/v1/edge";
inline constexpr const char* ME = "GET /v1.1/me";

// What becomes of one of the cloud's operations from now on; an empty fault heals all.
inline void fault(const std::string& operation, const std::string& what) {
  write(fs::path(CLOUD) / "faults.json",
        operation.empty() ? "{}" : "{\"" + operation + "\": " + what + '}');
}

inline void set_value(const char* file, const std::string& section, const std::string& key,
                      const std::string& value) {
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
  return read(LOG);
}

class CloudHost : public WebHost {
 protected:
  void SetUp() override {
    WebHost::SetUp();
    run({"/etc/init.d/pelmar_cloudagent.sh", "remove_dummy_interface"});
    for (const char* file : {PELMAR_CONF, TAMID_CONF, AGENT_CONF, AGENT_LINK, "/run/cloud/requests",
                             "/run/cloud/faults.json", MEMBER_STATE}) {
      fs::remove_all(file);
    }
    for (const char* folder : {"/opt/ormel/etc/cloudagent", "/opt/ormel/etc/system"})
      fs::create_directories(folder);
    write("/etc/platform.conf", "Platform = X86_KVM\n");
    write("/etc/config/TZ", "CET-1\nCEST\n");
    start_cloud("server");
  }

  // Another one takes the place of the cloud that runs.
  void start_cloud(const std::string& certificate) {
    stop_cloud();
    cloud_ = std::make_unique<Child>([&] {
      const std::string base = std::string(CLOUD) + '/' + certificate;
      execl("/usr/bin/nsenter", "nsenter", "--net=/run/netns/lan", "/run/cloud/fenro-cloud", CLOUD,
            CLOUD_ADDRESS, "443", (base + ".pem").c_str(), (base + ".key").c_str(), nullptr);
      return 127;
    });
    ASSERT_TRUE(comes_true(cloud_listens));
  }
  void stop_cloud() {
    cloud_.reset();
    run({"/usr/bin/pkill", "-KILL", "-f", "^/run/cloud/fenro-cloud"});
    ASSERT_TRUE(comes_true([] { return !cloud_listens(); }));
  }

  WebReply pelmar(const std::string& route, const std::string& query = {}) const {
    return cgi("/ormel/pelmar/" + route, admin + query);
  }
  // What the login page sends a browser back with.
  static std::string login_result() {
    static const std::string result =
        run({"/usr/bin/curl", "-sS",
             "https://auth-connector.production.global." ORMEL_CLOUD_DOMAIN "/v1/login"})
            .out;
    return result;
  }
  WebReply login(const std::string& result = login_result()) const {
    return cgi("/ormel/oauth_login", admin + "&result=" + result);
  }
  WebReply join(const std::string& region = "g2") const {
    return pelmar("device_register", JOIN_QUERY + region + "&region_name=North");
  }
  // Whether the daemon has been answered by the cloud as a member.
  static bool is_connected() {
    return comes_true(
        [] { return bus("pelmar_expressd", "GetCloudStatus") == R"({"error":0,"data":1})"; });
  }

 private:
  static bool cloud_listens() {
    return run({"/bin/bash", "-c", std::string("exec 3<>/dev/tcp/") + CLOUD_ADDRESS + "/443"})
               .status == 0;
  }

  std::unique_ptr<Child> cloud_;
};

}  // namespace ormel::test
