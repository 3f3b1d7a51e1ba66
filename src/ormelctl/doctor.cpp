#include "ormelctl/doctor.h"

#include <algorithm>
#include <cstdio>

#include "ormel/base/error.h"
#include "ormel/base/file.h"
#include "ormelctl/archive.h"

namespace ormelctl {

namespace {

constexpr const char* MARKS[] = {"ok", "warn", "fail", "skip"};
constexpr const char* SHOWN[] = {"ok  ", "WARN", "FAIL", "-   "};
constexpr const char* PROGRESS_FOLDER = "/run/fenro/doctor";
constexpr size_t WIDEST = 13;  // of a step's name

ormel::Json rows_of(const Findings& findings) {
  ormel::Json rows{json_array()};
  for (const Finding& one : findings) {
    json_array_append_new(
        rows.get(), json_pack("{s:s, s:s, s:s, s:s}", "step", one.step.c_str(), "result",
                              MARKS[static_cast<size_t>(one.mark)], "text",
                              printable(one.text).c_str(), "cure", printable(one.cure).c_str()));
  }
  return rows;
}

std::string line_of(const Finding& one) {
  std::string name = one.step;
  name.resize(std::max(name.size(), WIDEST), ' ');
  std::string text =
      "  " + painted(MARKS[static_cast<size_t>(one.mark)], SHOWN[static_cast<size_t>(one.mark)]) +
      "  " + name + ' ' + printable(one.text) + '\n';
  if (!one.cure.empty()) text += "        -> " + printable(one.cure) + '\n';
  return text;
}

// Where the web interface reads how far a run is.
class ProgressFile {
 public:
  explicit ProgressFile(const std::string& id) {
    constexpr std::string_view DIGITS = "0123456789abcdef";
    if (!id.empty() && id.find_first_not_of(DIGITS) == std::string::npos)
      path_ = std::string(PROGRESS_FOLDER) + '/' + id;
  }
  void write(const Findings& findings, bool done) const {
    if (path_.empty()) return;
    const ormel::Json document{
        json_pack("{s:b, s:o}", "done", done ? 1 : 0, "steps", rows_of(findings).release())};
    const ormel::CString text{json_dumps(document.get(), JSON_COMPACT)};
    // Without the file the page shows no progress; the run goes on.
    if (text) std::ignore = ormel::system::replace_file(path_, text.get(), fenro::PRIVATE_FILE);
  }

 private:
  std::string path_{};
};

// The archive of the logs, what the doctor has found and what the last hour has brought, in one
// file.
std::string write_bundle(const std::string& path, const json_t* found) {
  const PrivateFolder folder;
  if (folder.path().empty()) return "no room for a folder below /run";
  const auto put = [&](const char* name, const std::string& text) {
    return ormel::system::write_file(text, (folder.path() + '/' + name).c_str(),
                                     fenro::PRIVATE_FILE);
  };
  const ormel::CString text{json_dumps(found, JSON_INDENT(2))};
  bool whole = text && put("doctor.json", text.get());
  Arguments hour;
  hour.options["since"] = "1h";
  const Result events = log_events(hour);
  const ormel::CString rows{events.data ? json_dumps(events.data.get(), JSON_INDENT(2)) : nullptr};
  if (rows) whole = put("events.json", rows.get()) && whole;
  const Reply dump = call("/ormel/log/dump");
  const size_t head = dump.text.find("\r\n\r\n");
  if (dump.error == 0 && head != std::string::npos)
    whole = put("logs.tar.gz", dump.text.substr(head + 4)) && whole;
  const LimitedRun run =
      run_limited({"/bin/tar", "--create", "--gzip", "--mode=0600",
                   "--file=" + folder.path() + ".tar.gz", "--directory=" + folder.path(), "."},
                  "", 30);
  const std::string packed = folder.path() + ".tar.gz";
  std::string content;
  const bool written = whole && run.status == 0 &&
                       ormel::system::read_file(packed.c_str(), content) &&
                       ormel::system::replace_file(path, content, fenro::PRIVATE_FILE);
  std::remove(packed.c_str());
  return written ? std::string() : path + " cannot be written";
}

Result result_of(const Findings& findings, const std::string& title, const std::string& bundle) {
  std::string text = title;
  size_t failures = 0;
  for (const Finding& one : findings) {
    text += line_of(one);
    failures += one.mark == Mark::Failure ? 1 : 0;
  }
  Result result =
      done(text, rows_of(findings),
           {{"step", "STEP"}, {"result", "RESULT"}, {"text", "FOUND"}, {"cure", "CURE"}});
  if (!bundle.empty()) {
    if (const std::string wrong = write_bundle(bundle, result.data.get()); !wrong.empty())
      return failed(Exit::Failed, wrong,
                    "choose a folder with room: ormelctl doctor --bundle /root/case.tar.gz");
    result.message +=
        bundle +
        " holds these findings, the events of the last hour and the logs, without passwords\n";
  }
  if (failures == 0) return result;
  result.exit = Exit::Failed;
  result.error = ormel::ERR_GENERAL;
  result.advice = "follow the advice after \"->\", then run the doctor again";
  result.reason = failures == 1 ? "1 failure" : std::to_string(failures) + " failures";
  return result;
}

}  // namespace

Result doctor(const Arguments& arguments) {
  const std::string bundle = arguments.value("bundle");
  if (arguments.has("bundle") && bundle.empty())
    return failed(Exit::Usage, "--bundle needs a file");
  if (arguments.words.empty()) return result_of(examine_host(), "", bundle);
  Profile profile;
  Result problem;
  if (!find_profile(arguments.words[0], profile, problem)) return problem;
  const ProgressFile file(arguments.value("progress"));
  if (arguments.terminal) std::fprintf(stderr, "looking, at most 40 s ...\n");
  const Findings findings =
      examine_profile(profile, [&](const Findings& so_far) { file.write(so_far, false); });
  file.write(findings, true);
  return result_of(findings, printable(profile.name) + " (" + profile.target() + ")\n", bundle);
}

}  // namespace ormelctl
