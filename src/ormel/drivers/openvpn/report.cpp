#include "ormel/drivers/openvpn/report.h"

#include <algorithm>
#include <charconv>
#include <iterator>
#include <optional>
#include <string_view>

#include "ormel/base/crypto.h"
#include "ormel/base/error.h"
#include "ormel/base/error_capture.h"
#include "ormel/base/file.h"
#include "ormel/base/lines.h"
#include "ormel/base/text.h"
#include "ormel/host/process.h"

namespace ormel::ovpn {

namespace {

using fenro::BLANKS;
using fenro::trimmed;
using report::Fate;
using report::Line;
using report::Report;
using report::Verdict;

using Words = std::vector<std::string>;
using Items = std::vector<ProfileItem>;

constexpr const char* READER = "/usr/lib/fenro/fenro-openvpn-profile";
constexpr const char* CHECKER = "/usr/sbin/verify_ovpn.sh";
constexpr std::size_t LONGEST_TEXT = 200;  // bytes of a line that are shown
constexpr int ANY_SLOT = 1;                // the profile has none yet

// Why an option does not reach the daemon unchanged. `replaced`: a line of that name in the stored
// profile is ours.
struct Explanation {
  std::string_view name;
  bool replaced;
  const char* why;
};
constexpr const char* PROGRAM = "programs of a profile are never run";
constexpr const char* OURS = "this appliance decides how the daemon runs";
constexpr const char* SERVER_SIDE = "for a server, not for a client";
constexpr Explanation EXPLANATIONS[] = {
    {"up", true, PROGRAM},
    {"down", true, PROGRAM},
    {"plugin", true, PROGRAM},
    {"route-up", false, PROGRAM},
    {"route-pre-down", false, PROGRAM},
    {"ipchange", false, PROGRAM},
    {"tls-verify", false, PROGRAM},
    {"client-connect", false, PROGRAM},
    {"client-disconnect", false, PROGRAM},
    {"learn-address", false, PROGRAM},
    {"auth-user-pass-verify", false, PROGRAM},
    {"script-security", true, PROGRAM},
    {"block-outside-dns", false, "for Windows"},
    {"register-dns", false, "for Windows"},
    {"dev-node", false, "for Windows and macOS"},
    {"redirect-gateway", false,
     "the default gateway is set on this appliance: ormelctl gateway set"},
    {"route-noexec", false, "routes of the tunnel are always set, in a table of its own"},
    {"dev", false, "every profile has an interface of its own"},
    {"dev-type", false, "every profile has an interface of its own"},
    {"user", false, OURS},
    {"group", false, OURS},
    {"verb", false, OURS},
    {"daemon", true, OURS},
    {"log", true, OURS},
    {"log-append", false, OURS},
    {"syslog", false, OURS},
    {"status", false, OURS},
    {"writepid", true, OURS},
    {"management", true, OURS},
    {"management-hold", false, OURS},
    {"nice", false, OURS},
    {"chroot", false, OURS},
    {"cd", false, OURS},
    {"bind", false, "a client takes any free port"},
    {"lport", false, "a client takes any free port"},
    {"local", false, "a client takes any free port"},
    {"keysize", false, "the installed OpenVPN does not know it any more"},
    {"ncp-disable", false, "the installed OpenVPN does not know it any more"},
    {"setenv", false, "sets a variable for programs, which are never run"},
    {"setenv-safe", false, "sets a variable for programs, which are never run"},
    {"ignore-unknown-option", false, "options that are not known are left out anyway"},
    {"server", false, SERVER_SIDE},
    {"push", false, SERVER_SIDE},
    {"client-to-client", false, SERVER_SIDE},
    {"ifconfig-pool", false, SERVER_SIDE},
    {"connect-timeout", false, "set so that the next server is tried soon"},
    {"connect-retry-max", false, "the appliance connects again itself"},
    {"resolv-retry", false, "the appliance looks the name up again itself"},
    {"reneg-sec", false, "the server decides when keys are renewed"},
    {"data-ciphers", false, "more ciphers are offered to the server"},
    {"auth", false, "written in capital letters"},
    {"cipher", false, "written in capital letters"},
    {"crl-verify", false, "kept in a file beside the profile"},
    {"client", false, "every profile is one of a client"},
};

// Options whose values are secrets.
constexpr std::string_view SECRET[] = {"auth-token", "askpass", "http-proxy-user-pass",
                                       "static-challenge"};

// Options that name a file, and are a block when its content is there.
constexpr std::string_view FILES[] = {"ca",           "cert",        "key",       "dh",
                                      "pkcs12",       "extra-certs", "tls-auth",  "tls-crypt",
                                      "tls-crypt-v2", "secret",      "crl-verify"};
// Those of them that the checker wants to see.
struct Companion {
  const char* name;
  std::string ClientConfig::*path;
};
constexpr Companion JUDGED[] = {
    {"ca", &ClientConfig::ca}, {"cert", &ClientConfig::cert}, {"key", &ClientConfig::key}};
// What the line of a server takes over.
constexpr std::string_view SETTLED[] = {"proto", "port", "rport"};

template <typename Table>
bool lists(const Table& table, std::string_view name) {
  return std::find(std::begin(table), std::end(table), name) != std::end(table);
}

const Explanation* explanation_of(std::string_view name) {
  const auto* const row =
      std::find_if(std::begin(EXPLANATIONS), std::end(EXPLANATIONS),
                   [&](const Explanation& known) { return known.name == name; });
  return row == std::end(EXPLANATIONS) ? nullptr : row;
}

// The words of a line as the daemon takes them apart: quotes, backslashes, and an end at a comment.
Words words_of(std::string_view line) {
  Words words;
  std::string word;
  char quote = 0;
  bool inside = false;
  const auto finish = [&] {
    if (inside) words.push_back(std::exchange(word, {}));
    inside = false;
    quote = 0;
  };
  for (std::size_t at = 0; at < line.size(); ++at) {
    const char byte = line[at];
    if (byte == '\\' && quote != '\'' && at + 1 < line.size()) {
      inside = true;
      word += line[++at];
    } else if (quote) {
      if (byte == quote)
        finish();
      else
        word += byte;
    } else if (BLANKS.find(byte) != std::string_view::npos) {
      finish();
    } else if (!inside && (byte == ';' || byte == '#')) {
      return words;
    } else if (!inside && (byte == '"' || byte == '\'')) {
      inside = true;
      quote = byte;
    } else {
      inside = true;
      word += byte;
    }
  }
  finish();
  return words;
}

std::string without_returns(std::string text) {
  std::erase(text, '\r');
  return text;
}

std::string shown(const ProfileItem& item) {
  if (item.block) return item.text + " (" + std::to_string(item.body.size()) + " bytes)";
  if (lists(SECRET, item.name)) return item.name + " …";
  return item.text.size() <= LONGEST_TEXT ? item.text : mb_string(item.text, LONGEST_TEXT) + "…";
}

bool same_option(const ProfileItem& one, const ProfileItem& other) {
  return !one.block && !other.block && !one.blank && !other.blank &&
         words_of(one.text) == words_of(other.text);
}

bool same_block(const ProfileItem& one, const ProfileItem& other) {
  return one.block && other.block && one.name == other.name &&
         trimmed(without_returns(one.body), " \t\n") ==
             trimmed(without_returns(other.body), " \t\n");
}

template <typename Test>
const ProfileItem* find_item(const Items& items, Test test) {
  const auto found = std::find_if(items.begin(), items.end(), test);
  return found == items.end() ? nullptr : &*found;
}

class Comparison {
 public:
  Comparison(const Items& source, const std::string& stored, const DaemonCopy& copy,
             const Verdict& verdict)
      : source_(source),
        stored_(items_of(stored)),
        daemon_(items_of(copy.text)),
        copy_(copy),
        verdict_(verdict) {}

  [[nodiscard]] Line line_of(const ProfileItem& item) const {
    Line line{item.first, item.last, shown(item)};
    if (item.blank) {
      line.blank = true;
      line.why = item.text.empty() ? "an empty line" : "a comment";
      return line;
    }
    for (const auto rule : {&Comparison::judged, &Comparison::stopped, &Comparison::lacking,
                            &Comparison::unchanged, &Comparison::moved, &Comparison::replaced}) {
      if ((this->*rule)(item, line)) return line;
    }
    line.why = why(item, "not used by a client on this appliance");
    return line;
  }

  // Options of the daemon's copy that the source does not name, without those by which the
  // appliance runs the daemon.
  [[nodiscard]] std::vector<std::string> added() const {
    std::vector<std::string> lines;
    for (const ProfileItem& item : daemon_) {
      const Explanation* row = explanation_of(item.name);
      if (item.blank || item.block || item.text.starts_with('<') || (row && row->replaced))
        continue;
      if (!find_item(source_, [&](const ProfileItem& own) { return own.name == item.name; }))
        lines.push_back(shown(item));
    }
    return lines;
  }

 private:
  static std::string why(const ProfileItem& item, const char* otherwise) {
    const Explanation* row = explanation_of(item.name);
    return row ? row->why : otherwise;
  }
  [[nodiscard]] bool daemon_gets(const ProfileItem& item) const {
    return find_item(daemon_, [&](const ProfileItem& other) {
      return same_option(other, item) || same_block(other, item);
    });
  }
  // The same bytes.
  [[nodiscard]] const ProfileItem* stored_as_is(const ProfileItem& item) const {
    return find_item(stored_, [&](const ProfileItem& other) {
      return other.block == item.block && other.text == item.text && other.body == item.body;
    });
  }
  [[nodiscard]] const ProfileItem* stored_by_name(const ProfileItem& item) const {
    return find_item(
        stored_, [&](const ProfileItem& other) { return !other.blank && other.name == item.name; });
  }

  bool judged(const ProfileItem& item, Line& line) const {
    if (!verdict_.asked || verdict_.accepts) return false;
    const bool named =
        verdict_.line == 0 && !verdict_.option.empty() && verdict_.option == item.name;
    if (!named && (verdict_.line < item.first || verdict_.line > item.last)) return false;
    line.fate = Fate::Refused;
    line.why = verdict_.reason;
    return true;
  }

  // The reader of foreign profiles makes no copy for this line.
  bool stopped(const ProfileItem& item, Line& line) const {
    if (copy_.made) return false;
    const ProfileItem* culprit = find_item(stored_, [&](const ProfileItem& other) {
      return copy_.line >= other.first && copy_.line <= other.last;
    });
    if (!culprit || culprit->name != item.name || (culprit->text != item.text && !item.block))
      return false;
    line.fate = Fate::Refused;
    line.why = "the tunnel would not start: " + copy_.reason;
    return true;
  }

  bool lacking(const ProfileItem& item, Line& line) const {
    const Words words = words_of(item.text);
    if (item.block || words.size() < 2 || words[1] == "[inline]") return false;
    if (item.name == "auth-user-pass") {
      line.why = "the user and the password; the file is not read";
    } else if (const ProfileItem* kept = stored_by_name(item);
               lists(FILES, item.name) && kept && same_option(*kept, item)) {
      line.why = "the file " + words[1] + ", which did not come with the profile";
    } else {
      return false;
    }
    line.fate = Fate::Needs;
    return true;
  }

  bool unchanged(const ProfileItem& item, Line& line) const {
    if (!stored_as_is(item)) return false;
    // The tags of a connection block have no words of their own.
    const bool tag = item.text.starts_with('<') && !item.block;
    if (tag || daemon_gets(item)) {
      line.fate = Fate::Kept;
    } else {
      line.why = why(
          item, "stored, but not given to the daemon: no option for a client on this appliance");
    }
    return true;
  }

  // What an import lifts out of the profile.
  bool moved(const ProfileItem& item, Line& line) const {
    const Words words = words_of(item.text);
    if (item.name == "remote" || lists(SETTLED, item.name)) {
      const ProfileItem* server = find_item(stored_, [&](const ProfileItem& other) {
        const Words line_of_server = words_of(other.text);
        return other.name == "remote" && words.size() > 1 &&
               (item.name == "remote"
                    ? line_of_server.size() > 1 && line_of_server[1] == words[1]
                    : std::any_of(
                          line_of_server.begin() + 1, line_of_server.end(),
                          [&](const std::string& word) { return words[1].starts_with(word); }));
      });
      if (!server) {
        line.why = item.name == "remote"
                       ? "servers are stored with an embedded <ca> only: the tunnel has no server"
                       : "each server has its own";
      } else {
        line.fate = Fate::Changed;
        line.why = "becomes: " + server->text;
      }
      return true;
    }
    if (item.name == "auth-user-pass" && item.block) {
      line.fate = Fate::Changed;
      line.why = "user and password become settings of the profile";
      return true;
    }
    return false;
  }

  bool replaced(const ProfileItem& item, Line& line) const {
    const ProfileItem* other = stored_by_name(item);
    if (!other) return false;
    const ProfileItem* later = find_item(source_, [&](const ProfileItem& own) {
      return own.first > item.last && own.name == item.name && !own.blank;
    });
    const Explanation* row = explanation_of(item.name);
    if (row && row->replaced) {
      line.why = row->why;
    } else if (later) {
      line.why = "line " + std::to_string(later->first) + " of the same name counts";
    } else if (other->block && !item.block) {
      line.fate = Fate::Changed;
      line.why = "the content of the file becomes a part of the profile";
    } else if (!daemon_gets(*other)) {
      line.why = why(item, "not given to the daemon: no option for a client on this appliance");
    } else {
      line.fate = Fate::Changed;
      const std::string form = same_option(*other, item) || other->block
                                   ? "only blanks or line ends differ"
                                   : "becomes: " + shown(*other);
      line.why =
          row && !other->block && !same_option(*other, item) ? form + " (" + row->why + ')' : form;
    }
    return true;
  }

  const Items& source_;
  Items stored_, daemon_;
  const DaemonCopy& copy_;
  const Verdict& verdict_;
};

// A profile that cannot be imported: nothing of it is stored. A refusal begins with the name of its
// option.
std::vector<Line> refused_lines(const Items& source, const std::string& reason) {
  const std::string name = reason.substr(0, reason.find(' '));
  std::vector<Line> lines;
  for (const ProfileItem& item : source) {
    Line line{item.first, item.last, shown(item)};
    line.blank = item.blank;
    const bool culprit = !item.blank && (item.name == name || name == "client/tls-client") &&
                         (item.name == name || item.name == "client" || item.name == "tls-client");
    line.fate = culprit ? Fate::Refused : Fate::Dropped;
    line.why = culprit ? reason : "the profile is not imported";
    lines.push_back(std::move(line));
  }
  return lines;
}

void add_certificates(const std::string& stored, Report& report) {
  for (const ProfileItem& item : items_of(stored)) {
    if (!item.block || (item.name != "ca" && item.name != "cert" && item.name != "extra-certs"))
      continue;
    for (const openssl::CertificateFacts& one : openssl::certificates_of(item.body))
      report.certificates.push_back({item.name, one.subject, one.days});
  }
}

// The checker's arguments for the key files that came. False when one is missing that the profile
// names.
bool judge_arguments(const ClientConfig& record, const Items& source, std::string& arguments) {
  for (const Companion& row : JUDGED) {
    const std::string& path = record.*row.path;
    const ProfileItem* line = find_item(source, [&](const ProfileItem& item) {
      return item.name == row.name && !item.block && words_of(item.text).size() > 1;
    });
    if (line && path.empty()) return false;
    if (line) arguments += std::string("--") + row.name + ' ' + path + ' ';
  }
  return true;
}

struct ToolRun {
  int status = 0;
  std::string out, errors;
};

ToolRun run_tool(const std::vector<std::string>& command, const std::string& input) {
  const MibIo in{mib_io_create()}, out{mib_io_create()}, errors{mib_io_create()};
  if (!in || !out || !errors || mib_io_write(in.get(), input.data(), input.size()) < 0)
    return {-1, {}, {}};
  const int status = mib_io_execv(in.get(), out.get(), errors.get(), system::Argv(command).get());
  const auto text = [](const MibIo& io) {
    std::size_t length = 0;
    const char* bytes = mib_io_read(io.get(), &length);
    return bytes ? std::string(bytes, length) : std::string();
  };
  return {status, text(out), text(errors)};
}

// "line 7: text" anywhere in a message.
std::size_t read_line_number(const std::string& message, std::string& rest) {
  constexpr std::string_view LINE = "line ";
  std::size_t number = 0;
  const std::size_t at = message.find(LINE);
  if (at == std::string::npos) return 0;
  const char* const begin = message.data() + at + LINE.size();
  const auto [end, failure] = std::from_chars(begin, message.data() + message.size(), number);
  if (failure != std::errc{} || !std::string_view(end).starts_with(": ")) return 0;
  rest = end + 2;
  return number;
}

DaemonCopy make_copy(const std::string& stored, int slot) {
  const ToolRun run = run_tool({READER, "copy", std::to_string(slot)}, stored);
  DaemonCopy copy{run.status == 0, run.out};
  if (copy.made) return copy;
  const std::vector<std::string> lines = split_lines(run.errors);
  copy.reason = lines.empty() ? "the reader of profiles does not run" : lines.back();
  copy.line = read_line_number(copy.reason, copy.reason);
  return copy;
}

// The checker says "NAME: refused: REASON", where the daemon's reason ends with ": OPTION
// (VERSION)".
Verdict judge(const std::string& path, const std::string& arguments) {
  constexpr std::string_view REFUSED = "refused: ";
  Verdict verdict;
  verdict.asked = true;
  const ToolRun run = run_tool({CHECKER, path, arguments}, "");
  verdict.accepts = run.status == 0;
  if (verdict.accepts) return verdict;
  verdict.reason = "the check of the profile failed";
  for (const std::string& line : split_lines(run.errors)) {
    const std::size_t at = line.find(REFUSED);
    if (at != std::string::npos) verdict.reason = line.substr(at + REFUSED.size());
  }
  verdict.line = read_line_number(verdict.reason, verdict.reason);
  const std::size_t version = verdict.reason.rfind(" (");
  const std::size_t colon = verdict.reason.rfind(": ", version);
  if (verdict.line == 0 && version != std::string::npos && colon != std::string::npos)
    verdict.option = verdict.reason.substr(colon + 2, version - colon - 2);
  return verdict;
}

}  // namespace

std::vector<ProfileItem> items_of(const std::string& profile) {
  Items items;
  const std::vector<std::string> lines = split_lines(profile);
  constexpr std::string_view ENDS = " \t\r";
  for (std::size_t at = 0; at < lines.size(); ++at) {
    ProfileItem item{at + 1, at + 1, {}, std::string(trimmed(lines[at], ENDS))};
    if (at == 0 && item.text.starts_with("\xEF\xBB\xBF")) item.text.erase(0, 3);
    const std::string& text = item.text;
    item.blank = text.empty() || text[0] == '#' || text[0] == ';';
    if (!item.blank && text[0] == '<') {
      item.name = text.substr(1, text.find('>') - 1);
      item.block = text.ends_with('>') && text.find('>') == text.size() - 1 && text[1] != '/' &&
                   item.name != "connection";
    } else if (!item.blank) {
      const Words words = words_of(text);
      item.name = words.empty() ? text : words[0];
      if (item.name.size() > 2 && item.name.starts_with("--")) item.name.erase(0, 2);
    }
    if (item.block) {
      const std::string closing = "</" + item.name + '>';
      std::string body;
      while (++at < lines.size() && !trimmed(lines[at], ENDS).starts_with(closing))
        body += lines[at] + '\n';
      item.last = std::min(at + 1, lines.size());
      item.body = trimmed(body, " \t\r\n");
    }
    items.push_back(std::move(item));
  }
  return items;
}

ReportTools platform_tools() {
  return {make_copy, judge};
}

Report report_profile(ClientConfig& record, const ReportTools& tools) {
  Report report;
  std::string source;
  if (!system::read_file(record.file.c_str(), source)) {
    report.error = ERR_REGULAR_FILE;
    report.reason = record.file + " cannot be read";
    return report;
  }
  const Items items = items_of(source);
  std::string arguments;
  if (judge_arguments(record, items, arguments))
    report.daemon = tools.judge(record.file, arguments);

  option::ConfigFile cf;
  system::ErrorCapture errors;
  report.error = record.convert(ANY_SLOT, cf);
  const std::string detail = errors.take();
  if (report.error != NO_ERROR) {
    report.reason =
        detail.empty() ? get_error_message(static_cast<unsigned>(report.error)) : detail;
    report.lines = refused_lines(items, report.reason);
    return report;
  }
  report.stored = cf.text(true, record.remotes);
  const DaemonCopy copy = tools.copy(report.stored, ANY_SLOT);
  const Comparison comparison(items, report.stored, copy, report.daemon);
  for (const ProfileItem& item : items) report.lines.push_back(comparison.line_of(item));
  if (copy.made) report.added = comparison.added();
  for (const option::OpenvpnRemotes& remote : record.remotes)
    report.servers.push_back({remote.remote_ip, remote.remote_port, remote.remote_proto});
  add_certificates(report.stored, report);
  for (const Line& line : report.lines) {
    if (line.fate == Fate::Needs && !line.text.starts_with("auth-user-pass"))
      report.needs.push_back(line.text.substr(0, line.text.find_first_of(" \t")));
  }
  if (record.auth_pass && record.user.empty())
    report.needs.insert(report.needs.end(), {"user", "pass"});
  if (!copy.made) {
    report.error = ERR_OPENVPN_CLIENT;
    report.reason = "the tunnel would not start: " + copy.reason;
  } else if (report.daemon.asked && !report.daemon.accepts) {
    report.error = ERR_OPENVPN_CLIENT;
    report.reason = report.daemon.reason;
  }
  return report;
}

}  // namespace ormel::ovpn
