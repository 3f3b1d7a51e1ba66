#include "daemons/keeper/settings.h"

#include <algorithm>
#include <cctype>
#include <memory>
#include <sys/stat.h>

#include <curl/curl.h>
#include <fenro/conf.h>

#include "base/handle.h"
#include "daemons/keeper/events.h"
#include "daemons/keeper/tunnels.h"
#include "libfenro/ini_file.h"

namespace fenro::keeper {
namespace {

constexpr const char* FILE_PATH = "/etc/config/ormel/keeper.conf";
constexpr const char* FOLDER = "/etc/config/ormel";
constexpr mode_t FOLDER_MODE = 0755;
constexpr std::string_view SECTION = "notify ";
constexpr std::string_view ALL = "all";
constexpr std::string_view MAIL = "mail:";
constexpr std::size_t MAX_NAME = 32;
constexpr std::size_t MAX_URL = 1024;
constexpr std::size_t MAX_SECRET = 256;
constexpr std::size_t MAX_TARGETS = 32;

using Url = std::unique_ptr<CURLU, FreeWith<curl_url_cleanup>>;
using Conf = std::unique_ptr<Conf_dir, FreeWith<Conf_Dir_Free>>;

std::string part_of(CURLU* url, CURLUPart part) {
  char* text = nullptr;
  if (curl_url_get(url, part, &text, 0) != CURLUE_OK) return {};
  const std::unique_ptr<char, FreeWith<curl_free>> owner{text};
  return text;
}

bool is_loopback(const std::string& host) {
  if (host == "localhost" || host == "[::1]") return true;
  return host.starts_with("127.") &&
         std::ranges::all_of(host, [](unsigned char c) { return std::isdigit(c) || c == '.'; });
}

bool is_printable(std::string_view text) {
  return std::ranges::all_of(text, [](unsigned char c) { return c > ' ' && c < 0x7f; });
}

bool is_mailbox(std::string_view text) {
  return !text.empty() && text.front() != '-' && std::ranges::all_of(text, [](unsigned char c) {
    return std::isalnum(c) ||
           std::string_view{"._+@-"}.find(static_cast<char>(c)) != std::string_view::npos;
  });
}

std::string section_of(const std::string& name) {
  return std::string{SECTION} + name;
}

}  // namespace

bool Target::wants(std::string_view kind) const {
  return kind == TEST_KIND || std::ranges::find(events, ALL) != events.end() ||
         std::ranges::find(events, kind) != events.end();
}

Settings read_settings() {
  const auto on = [](const char* key) {
    return is_true(ini::read_value(FILE_PATH, "keeper", key).value_or("TRUE"));
  };
  return {on("Servers"), on("Clients")};
}

std::vector<Target> read_targets() {
  std::vector<Target> targets;
  const Conf conf{Conf_Dir_Load(FILE_PATH)};
  for (int i = 0; i < conf->sec_num && targets.size() < MAX_TARGETS; ++i) {
    const std::string section = conf->sec[i];
    if (!section.starts_with(SECTION)) continue;
    const auto value = [&](const char* key) {
      return std::string{Conf_Dir_Get_Str(conf.get(), section.c_str(), key, "")};
    };
    Target target{section.substr(SECTION.size()), value("URL"), split_events(value("Events")),
                  value("Secret")};
    if (fault_of(target).empty()) targets.push_back(std::move(target));
  }
  return targets;
}

bool is_webhook(const std::string& text) {
  const Url url{curl_url()};
  if (text.size() > MAX_URL || !is_printable(text) ||
      curl_url_set(url.get(), CURLUPART_URL, text.c_str(), 0) != CURLUE_OK)
    return false;
  if (!part_of(url.get(), CURLUPART_USER).empty() ||
      !part_of(url.get(), CURLUPART_PASSWORD).empty())
    return false;
  const std::string scheme = part_of(url.get(), CURLUPART_SCHEME);
  return scheme == "https" || (scheme == "http" && is_loopback(part_of(url.get(), CURLUPART_HOST)));
}

std::string fault_of(const Target& target) {
  const bool named = !target.name.empty() && target.name.size() <= MAX_NAME &&
                     std::ranges::all_of(target.name, [](unsigned char c) {
                       return std::isalnum(c) || c == '-' || c == '_';
                     });
  if (!named) return "a name has up to 32 letters, digits, \"-\" and \"_\"";
  if (target.url.starts_with(MAIL)) {
    if (!is_mailbox(std::string_view{target.url}.substr(MAIL.size())))
      return "after mail: comes a user or an address";
  } else if (!is_webhook(target.url)) {
    return "the URL begins with https:// (or is this host's own loopback), without a user name in "
           "it; or it is "
           "mail:USER";
  }
  if (target.events.empty()) return "no events are chosen";
  for (const std::string& kind : target.events) {
    if (kind != ALL && !find_kind(kind)) return "there are no events of kind " + kind;
  }
  if (target.secret.size() > MAX_SECRET || !is_printable(target.secret))
    return "the secret has characters that cannot be used";
  return {};
}

bool store_target(const Target& target) {
  mkdir(FOLDER, FOLDER_MODE);
  const std::string section = section_of(target.name);
  return ini::write_value(FILE_PATH, section, "URL", target.url) &&
         ini::write_value(FILE_PATH, section, "Events", join_events(target.events)) &&
         ini::write_value(FILE_PATH, section, "Secret", target.secret);
}

bool remove_target(const std::string& name) {
  return ini::remove_section(FILE_PATH, section_of(name));
}

std::vector<std::string> split_events(std::string_view text) {
  std::vector<std::string> events;
  std::string word;
  for (const char c : std::string{text} + ' ') {
    if (c != ' ' && c != ',') {
      word += c;
    } else if (!word.empty()) {
      events.push_back(std::exchange(word, {}));
    }
  }
  return events;
}

std::string join_events(const std::vector<std::string>& events) {
  std::string text;
  for (const std::string& kind : events) text += (text.empty() ? "" : " ") + kind;
  return text;
}

}  // namespace fenro::keeper
