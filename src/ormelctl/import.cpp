// Profiles from files: what would become of each line, and storing them.
#include <algorithm>
#include <cstdio>
#include <unistd.h>

#include "ormel/base/error.h"
#include "ormel/base/error_capture.h"
#include "ormel/base/file.h"
#include "ormel/base/text.h"
#include "ormel/drivers/openvpn/report.h"
#include "ormel/drivers/wireguard/conf_file.h"
#include "ormel/host/process.h"
#include "ormel/options/table.h"
#include "ormelctl/archive.h"
#include "ormelctl/profile.h"

namespace ormelctl {

namespace {

using ormel::report::Fate;
using ormel::report::Report;
using Words = std::vector<std::string>;

constexpr size_t LARGEST = size_t{1} << 20U;  // bytes of a profile, as over the web

// An option of a profile that names a file, and the program's option that brings it.
struct Companion {
  const char* option;
  const char* word;
};
constexpr Companion COMPANIONS[] = {{"ca", "ca"},
                                    {"cert", "cert"},
                                    {"key", "key"},
                                    {"dh", "dh"},
                                    {"pkcs12", "pkcs12"},
                                    {"secret", "secret"},
                                    {"extra-certs", "extra_certs"},
                                    {"tls-auth", "tls_auth"},
                                    {"crl-verify", "crl_verify"}};

// One profile of the files given.
struct Candidate {
  std::string file{};
  std::string name{};
  bool wireguard = false;
  Words words{};  // of the program's command line that imports it
  Report report{};
  std::string stored{};   // PROTOCOL/INDEX
  std::string problem{};  // why it was not stored
};

std::string last_part(const std::string& path) {
  return path.substr(path.find_last_of("/\\") + 1);
}

bool is_profile_name(const std::string& name) {
  const std::string lower = ormel::to_lower(name);
  return lower.ends_with(".ovpn") || lower.ends_with(".conf");
}

std::string stem(const std::string& file) {
  const std::string name = last_part(file);
  return is_profile_name(name) ? name.substr(0, name.rfind('.')) : name;
}

// The files given, archives unpacked. What is wrong with one, or an empty text.
std::string collect(const Words& given, const std::string& folder, std::vector<PackedFile>& files) {
  for (const std::string& path : given) {
    if (access(path.c_str(), R_OK) != 0) return path + " cannot be read";
    if (!is_archive(path)) {
      files.push_back({path, path});
    } else if (std::string wrong = unpack(path, folder, files); !wrong.empty()) {
      return wrong;
    }
  }
  return {};
}

// The given file that a profile means, by the last part of its name.
const PackedFile* find_companion(const std::vector<PackedFile>& files, const std::string& wanted) {
  const std::string name = ormel::to_lower(last_part(wanted));
  const auto found = std::find_if(files.begin(), files.end(), [&](const PackedFile& file) {
    return ormel::to_lower(last_part(file.name)) == name;
  });
  return found == files.end() ? nullptr : &*found;
}

Words openvpn_words(const PackedFile& file, const std::string& name, const std::string& text,
                    const std::vector<PackedFile>& files, const Arguments& arguments) {
  Words words{"--type=OVPN", "--import=" + file.path, "--name=" + encoded(name)};
  const std::vector<ormel::ovpn::ProfileItem> items = ormel::ovpn::items_of(text);
  for (const Companion& row : COMPANIONS) {
    std::string path = arguments.value(row.option);
    for (const ormel::ovpn::ProfileItem& item : items) {
      if (item.block || item.name != row.option || !path.empty()) continue;
      const size_t value = item.text.find_first_of(" \t");
      if (value == std::string::npos) continue;
      std::string wanted = item.text.substr(value);
      ormel::trim(wanted);
      if (wanted.starts_with('"')) wanted = wanted.substr(1, wanted.find('"', 1) - 1);
      const PackedFile* found = find_companion(files, wanted);
      if (!found) found = find_companion(files, wanted.substr(0, wanted.find_first_of(" \t")));
      if (found) path = found->path;
    }
    if (!path.empty()) words.push_back(std::string("--") + row.word + '=' + path);
  }
  return words;
}

Words wireguard_words(const std::string& name, const std::string& text) {
  Words words{"--type=WG", "--add", "--client_name=" + encoded(name)};
  for (const auto& [option, value] : ormel::wireguard::settings_of(text)) {
    words.push_back("--");
    words.back().append(option).append("=").append(value);
  }
  return words;
}

// The record as the import would have it, before anything is stored.
Report openvpn_report(const Words& words) {
  Words line{"ormel"};
  line.insert(line.end(), words.begin(), words.end());
  ormel::system::Argv argv{line};
  ormel::system::ErrorCapture errors;
  const auto record = ormel::option::get_options(static_cast<int>(line.size()), argv.get());
  const std::string detail = errors.take();
  if (record && record->bc)
    return ormel::ovpn::report_profile(*record->cast<ormel::ovpn::ClientConfig>(),
                                       ormel::ovpn::platform_tools());
  Report report;
  report.error = ormel::ERR_VALUE;
  report.reason = detail.empty() ? "an option is not accepted" : detail;
  return report;
}

// What is wrong with the call, or an empty text.
std::string read_profiles(const std::vector<PackedFile>& files, const Arguments& arguments,
                          const Words& account, std::vector<Candidate>& profiles) {
  for (const PackedFile& file : files) {
    if (files.size() > 1 && !is_profile_name(file.name)) continue;
    Candidate profile;
    profile.file = file.name;
    profile.name = arguments.value("name", stem(file.name));
    std::string text;
    if (!ormel::system::read_file(file.path.c_str(), text, LARGEST))
      return file.name + " is not a file of up to 1 MiB";
    profile.wireguard = ormel::wireguard::is_conf_file(text);
    if (profile.wireguard) {
      profile.words = wireguard_words(profile.name, text);
      profile.report = ormel::wireguard::report_conf_file(text);
    } else {
      profile.words = openvpn_words(file, profile.name, text, files, arguments);
      profile.words.insert(profile.words.end(), account.begin(), account.end());
      profile.report = openvpn_report(profile.words);
    }
    profiles.push_back(std::move(profile));
  }
  if (profiles.empty()) return "none of the files is a profile (.ovpn or .conf)";
  return profiles.size() > 1 && arguments.has("name") ? "--name is for one profile" : "";
}

std::string count_text(const Report& report) {
  constexpr const char* WORDS[] = {"kept", "changed", "dropped", "refused", "needed"};
  size_t lines = 0;
  for (const ormel::report::Line& line : report.lines)
    lines += line.blank ? 0 : line.last - line.first + 1;
  std::string text = std::to_string(lines) + " lines";
  const char* divider = ": ";
  for (size_t fate = 0; fate < std::size(WORDS); ++fate) {
    const size_t count = report.count(static_cast<Fate>(fate));
    if (count == 0) continue;
    text += divider + std::to_string(count) + ' ' + WORDS[fate];
    divider = ", ";
  }
  return text;
}

std::string padded(std::string text, size_t width) {
  text.resize(std::max(text.size(), width), ' ');
  return text;
}

std::string joined(const Words& words) {
  std::string text;
  for (const std::string& word : words) text += (text.empty() ? "" : ", ") + word;
  return text;
}

// The lines that are not kept, and what else there is to know.
std::string report_text(const Candidate& profile) {
  constexpr size_t SHOWN = 40;  // bytes of a line
  const Report& report = profile.report;
  std::string text = printable(profile.file) + ": " + count_text(report) + '\n';
  for (const ormel::report::Line& line : report.lines) {
    if (line.blank || line.fate == Fate::Kept) continue;
    std::string source = printable(line.text);
    if (source.size() > SHOWN) source = source.substr(0, SHOWN - 3) + "...";
    text += "  line " + padded(std::to_string(line.first), 4) + ' ' + padded(source, SHOWN) + "  " +
            padded(name_of(line.fate), 8) + ' ' + printable(line.why) + '\n';
  }
  if (!report.added.empty()) text += "  added    " + printable(joined(report.added)) + '\n';
  for (const ormel::report::Server& server : report.servers)
    text +=
        "  server   " + printable(server.host) + ':' + server.port + '/' + server.protocol + '\n';
  for (const ormel::report::Certificate& one : report.certificates) {
    text += "  " + padded(one.role, 8) + ' ' + printable(one.subject) + ": ";
    text += one.days < 0 ? "EXPIRED " + std::to_string(-one.days) + " days ago\n"
                         : std::to_string(one.days) + " days left\n";
  }
  if (!report.needs.empty()) text += "  needs    " + printable(joined(report.needs)) + '\n';
  if (!profile.stored.empty()) return text + "  stored   " + profile.stored + '\n';
  const std::string& problem = profile.problem.empty() ? report.reason : profile.problem;
  return problem.empty() ? text : text + "  refused  " + printable(problem) + '\n';
}

ormel::Json row_of(const Candidate& profile) {
  ormel::Json row = document_of(profile.report);
  const auto set = [&](const char* key, const std::string& value) {
    json_object_set_new(row.get(), key, json_string(printable(value).c_str()));
  };
  set("file", profile.file);
  set("name", profile.name);
  set("protocol", profile.wireguard ? "wireguard" : "openvpn");
  set("stored", profile.stored);
  set("problem", profile.problem.empty() ? profile.report.reason : profile.problem);
  return row;
}

// A profile that names a key file which did not come cannot work.
std::string obstacle(const Candidate& profile) {
  const Report& report = profile.report;
  if (report.error != 0) return report.reason;
  Words files;
  for (const std::string& need : report.needs) {
    if (need != "user" && need != "pass") files.push_back(need);
  }
  return files.empty() ? "" : "files that it names did not come with it: " + joined(files);
}

void store(std::vector<Candidate>& profiles) {
  const ChangeLock lock;
  for (Candidate& profile : profiles) {
    profile.problem = lock ? obstacle(profile) : "another change is still running";
    if (!profile.problem.empty()) continue;
    const Reply reply = act(profile.words);
    if (reply.error != 0) {
      profile.problem = reply.reason;
      continue;
    }
    const json_t* record = reply.data();
    if (json_is_array(record)) record = json_array_get(record, 0);
    const ormel::Json described = json_is_object(record) ? describe_profile(record) : nullptr;
    profile.stored = described ? text_of(described.get(), "target") : "yes";
  }
}

bool agreed() {
  std::fputs("Store it? [y/N] ", stderr);
  char answer[8] = "";
  return std::fgets(answer, sizeof answer, stdin) && (answer[0] == 'y' || answer[0] == 'Y');
}

std::string whole_text(const std::vector<Candidate>& profiles) {
  std::string text;
  for (const Candidate& profile : profiles) text += report_text(profile);
  return text;
}

Result finish(std::vector<Candidate>& profiles, bool tried, std::string text) {
  ormel::Json rows{json_array()};
  size_t stored = 0, refused = 0;
  for (const Candidate& profile : profiles) {
    json_array_append_new(rows.get(), row_of(profile).release());
    stored += profile.stored.empty() ? 0 : 1;
    refused += profile.stored.empty() && (tried || !obstacle(profile).empty()) ? 1 : 0;
  }
  const std::string count =
      std::to_string(profiles.size()) + (profiles.size() == 1 ? " file" : " files");
  text += tried ? count + ": " + std::to_string(stored) + " stored, " + std::to_string(refused) +
                      " refused\n"
                : "nothing stored. Store it: --yes\n";
  Result result =
      done(text, std::move(rows), {{"file", "FILE"}, {"stored", "STORED"}, {"problem", "PROBLEM"}});
  if (refused == 0) return result;
  result.exit = Exit::Failed;
  result.error = ormel::ERR_OPENVPN_CLIENT;
  result.reason = std::to_string(refused) + " of " + count + " cannot be imported";
  result.advice = "correct the lines that the report names, or add the files that are missing";
  return result;
}

}  // namespace

Result profile_import(const Arguments& arguments) {
  Words account;
  if (arguments.has("user")) account.push_back("--user=" + arguments.value("user"));
  if (arguments.has("pass-file")) {
    const auto secret = read_secret(arguments.value("pass-file"));
    if (!secret) {
      return failed(Exit::Failed, "--pass-file: " + arguments.value("pass-file") +
                                      " cannot be read, or is not one line");
    }
    account.push_back("--pass=" + *secret);
  }
  const PrivateFolder folder;
  if (folder.path().empty()) return failed(Exit::Failed, "no room for a folder below /run");
  std::vector<PackedFile> files;
  if (const std::string wrong = collect(arguments.words, folder.path(), files); !wrong.empty())
    return failed(wrong.ends_with("cannot be read") ? Exit::NotFound : Exit::Failed, wrong);
  if (arguments.terminal) std::fputs("reading, and asking the daemon ...\n", stderr);
  std::vector<Candidate> profiles;
  if (const std::string wrong = read_profiles(files, arguments, account, profiles); !wrong.empty())
    return failed(Exit::Usage, wrong, "ormelctl profile import office.ovpn ca.crt --report");

  if (arguments.has("report")) return finish(profiles, false, whole_text(profiles));
  const bool asks = !arguments.has("yes") && arguments.terminal && isatty(STDIN_FILENO) != 0;
  if (asks) std::fputs(whole_text(profiles).c_str(), stdout);
  std::fflush(stdout);
  if (!arguments.has("yes") && !(asks && agreed())) {
    Result result = finish(profiles, false, asks ? "" : whole_text(profiles));
    result.exit = asks ? Exit::Failed : Exit::Usage;
    result.reason = asks ? "not done" : "--yes is missing: nothing was stored";
    result.advice = "the same command with --yes stores them";
    return result;
  }
  store(profiles);
  return finish(profiles, true, asks ? "" : whole_text(profiles));
}

}  // namespace ormelctl
