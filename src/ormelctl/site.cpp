// The configuration as a document: printed, compared and put into effect.
#include "ormelctl/site.h"

#include <algorithm>
#include <cstdio>
#include <iostream>
#include <iterator>
#include <string_view>

#include "ormel/base/error.h"
#include "ormel/base/file.h"
#include "ormelctl/profile.h"

namespace ormelctl {
namespace site {

using ormel::Json;

namespace {

constexpr size_t LARGEST = size_t{16} << 20U;  // bytes of a document
constexpr size_t LARGEST_PROFILE = size_t{1} << 20U;

constexpr Part PARTS[] = {
    {"servers", plan_servers}, {"profiles", plan_profiles}, {"peers", plan_peers},
    {"access", plan_access},   {"rights", plan_rights},     {"block", plan_block},
    {"gateway", plan_gateway}, {"guard", plan_guard},       {"notifications", plan_notifications},
};

const json_t* at_path(const json_t* document, const Path& path) {
  for (const std::string& key : path) document = json_object_get(document, key.c_str());
  return document;
}

std::string joined(const Path& path) {
  std::string text;
  for (const std::string& key : path) text += (text.empty() ? "" : ".") + key;
  return text;
}

// The text of a file that a document names. Empty, with `plan.wrong` set, when it cannot be used.
std::string read_named(const Path& path, const std::string& file, const std::string& folder,
                       Plan& plan) {
  const std::string place = file.starts_with('/') || folder.empty() ? file : folder + '/' + file;
  std::string text;
  if (path.back() == PROFILE_TEXT) {
    if (!ormel::system::read_file(place.c_str(), text, LARGEST_PROFILE)) text.clear();
  } else if (const auto secret = read_secret(place)) {
    text = *secret;
  }
  if (text.empty()) plan.refuse(joined(path), "has no usable file: " + place);
  return text;
}

void resolve(json_t* object, const Path& path, const json_t* now, const std::string& folder,
             Plan& plan) {
  const char* const key = path.back().c_str();
  const json_t* const value = json_object_get(object, key);
  if (json_is_string(value) || !plan.wrong.empty()) return;
  if (json_object_get(value, "file")) {
    const std::string text = read_named(path, text_of(value, "file"), folder, plan);
    json_object_set_new(object, key, json_stringn(text.data(), text.size()));
    return;
  }
  const json_t* const kept = at_path(now, path);
  const bool known = at_path(now, Path(path.begin(), path.end() - 1)) != nullptr;
  if (!known) plan.refuse(joined(path), R"(is not kept here: give the text, or {"file": "PATH"})");
  if (kept)
    json_object_set(object, key, const_cast<json_t*>(kept));
  else
    json_object_del(object, key);
}

std::string folder_of(const std::string& path) {
  const size_t slash = path.rfind('/');
  return path == "-" || slash == std::string::npos ? "" : path.substr(0, slash);
}

// The document of a file, or of standard input for "-".
bool read_document(const std::string& path, Json& document, Result& problem) {
  std::string text;
  if (path == "-") {
    text.assign(std::istreambuf_iterator<char>(std::cin), {});
  } else if (!ormel::system::read_file(path.c_str(), text, LARGEST)) {
    problem = failed(Exit::NotFound, path + " cannot be read", "ormelctl export >site.json");
    return false;
  }
  json_error_t error{};
  document.reset(json_loadb(text.data(), text.size(), JSON_REJECT_DUPLICATES, &error));
  if (json_t* data = json_object_get(document.get(), "data"))  // printed with --json
    document.reset(json_incref(data));
  if (document) return true;
  problem = failed(Exit::Failed, path + ", line " + std::to_string(error.line) + ": " + error.text,
                   "nothing was changed; correct the document");
  return false;
}

Plan make_plan(json_t* document, const Json& now, const std::string& folder, bool prune) {
  if (ormel::config::cm.config_pool.empty()) ormel::config::cm.load();
  Plan plan{.document = document, .now = now.get()};
  plan.wrong = broken_rule(document);
  if (!plan.wrong.empty() || !resolve_secrets(document, now.get(), folder, plan)) return plan;
  for (const Part& part : PARTS) {
    const json_t* const wanted = json_object_get(document, part.name);
    if (wanted && !part.plan(wanted, json_object_get(now.get(), part.name), prune, plan)) break;
  }
  std::ranges::stable_sort(plan.steps, {}, &Step::phase);
  return plan;
}

Result refused_document(const Plan& plan) {
  return failed(Exit::Failed, plan.wrong, "nothing was changed; correct that member");
}

std::string lines(const Plan& plan) {
  std::string text;
  for (const Difference& row : plan.differences)
    text += std::string(1, row.sign) + ' ' + printable(row.path) +
            (row.detail.empty() ? "" : (row.sign == '~' ? "  " : " ") + printable(row.detail)) +
            '\n';
  return text;
}

Json rows(const Plan& plan) {
  Json list{json_array()};
  for (const Difference& row : plan.differences) {
    json_array_append_new(list.get(), json_pack("{s:s%, s:s, s:s}", "change", &row.sign, size_t{1},
                                                "path", printable(row.path).c_str(), "detail",
                                                printable(row.detail).c_str()));
  }
  return list;
}

const Columns DIFFERENCE_COLUMNS = {{"change", "CHANGE"}, {"path", "MEMBER"}, {"detail", "VALUE"}};

std::string counts(const Plan& plan) {
  std::string text =
      "changed " + std::to_string(plan.changed) + ", added " + std::to_string(plan.added);
  if (plan.removed != 0) text += ", removed " + std::to_string(plan.removed);
  return text + ", left " + std::to_string(plan.same + plan.left) + " as they are";
}

constexpr long START_SECONDS = 15;  // that a server's script may take

bool touches(const Plan& plan, const json_t* server) {
  const std::string path = "servers." + text_of(server, "protocol");
  return std::ranges::find(plan.steps, path, &Step::path) != plan.steps.end();
}

// One look at the servers that were changed: those that do not run although they are on go to
// `failures`. Whether all have started or failed.
bool have_settled(const Plan& plan, std::string& failures) {
  const Json servers = server_rows();
  failures.clear();
  bool settled = true;
  size_t at = 0;
  const json_t* row = nullptr;
  json_array_foreach(servers.get(), at, row) {
    const std::string state = touches(plan, row) ? text_of(row, "state") : "";
    if (state == "starting") settled = false;
    if (state == "failed")
      failures += (failures.empty() ? "" : ", ") + text_of(row, "protocol") +
                  " does not run: " + text_of(row, "why");
  }
  return settled;
}

std::string failed_servers(const Plan& plan) {
  std::string failures;
  if (!plan.steps.empty())
    std::ignore = comes_true([&] { return have_settled(plan, failures); }, START_SECONDS);
  return failures;
}

Result run_steps(const Plan& plan, const std::string& file) {
  size_t done_steps = 0;
  for (const Step& step : plan.steps) {
    const Reply reply = step.run();
    if (reply.error != 0) {
      Result result = failed(reply.error, step.path + ": " + reply.reason);
      result.advice = std::to_string(done_steps) + " of " + std::to_string(plan.steps.size()) +
                      " steps were done before; ormelctl diff " + file + " shows what is left";
      return result;
    }
    ++done_steps;
  }
  if (const std::string failures = failed_servers(plan); !failures.empty())
    return failed(Exit::Failed, counts(plan) + "; but " + failures, "ormelctl why says more");
  return done(counts(plan), rows(plan));
}

}  // namespace

void Plan::note(char sign, const std::string& path, const std::string& detail) {
  differences.push_back({sign, path, detail});
}

bool Plan::refuse(const std::string& path, const std::string& why) {
  if (wrong.empty()) wrong = path + ' ' + why;
  return false;
}

std::string shown(const json_t* value) {
  if (!value) return "nothing";
  if (json_is_string(value)) return json_string_value(value);
  if (json_is_array(value)) {
    std::string text;
    size_t at = 0;
    const json_t* item = nullptr;
    json_array_foreach(value, at, item) text += (at ? ", " : "") + shown(item);
    return text.empty() ? "none" : text;
  }
  const ormel::CString text{json_dumps(value, JSON_ENCODE_ANY | JSON_COMPACT)};
  return text ? text.get() : "";
}

bool is_mail_target(const json_t* url) {
  return json_is_string(url) && std::string_view(json_string_value(url)).starts_with("mail:");
}

bool note_members(const std::string& path, const json_t* wanted, const json_t* now, Plan& plan) {
  bool differs = false;
  const char* key = nullptr;
  json_t* value = nullptr;
  json_object_foreach(const_cast<json_t*>(wanted), key, value) {
    const json_t* const before = json_object_get(now, key);
    const std::string_view name = key;
    if (json_equal(value, before)) continue;
    differs = true;
    const bool secret = name == "psk" || name == "secret" ||
                        (name == "url" && !(is_mail_target(before) && is_mail_target(value)));
    plan.note('~', path + '.' + key, secret ? "changed" : shown(before) + " → " + shown(value));
  }
  return differs;
}

bool resolve_secrets(json_t* document, const json_t* now, const std::string& folder, Plan& plan) {
  for_each_secret(document, [&](json_t* object, const Path& path) {
    resolve(object, path, now, folder, plan);
  });
  return plan.wrong.empty();
}

}  // namespace site

Result site_export(const Arguments& arguments) {
  ormel::Json document = site::present();
  if (!arguments.has("secrets")) {
    site::for_each_secret(document.get(), [](json_t* object, const site::Path& path) {
      if (site::is_mail_target(json_object_get(object, path.back().c_str()))) return;
      json_object_set_new(object, path.back().c_str(), json_pack("{s:b}", "kept", 1));
    });
  }
  const ormel::CString text{json_dumps(document.get(), JSON_INDENT(2) | JSON_SORT_KEYS)};
  return text ? done(std::string(text.get()) + '\n', std::move(document))
              : failed(ormel::ERR_NO_MEMORY);
}

Result site_diff(const Arguments& arguments) {
  const std::string& file = arguments.words[0];
  ormel::Json document;
  Result result;
  if (!site::read_document(file, document, result)) return result;
  const ormel::Json now = site::present();
  const site::Plan plan = site::make_plan(document.get(), now, site::folder_of(file), false);
  if (!plan.wrong.empty()) return site::refused_document(plan);
  if (plan.differences.empty()) return done("the same as " + file, site::rows(plan));
  result.exit = Exit::Differs;
  result.reason = std::to_string(plan.differences.size()) +
                  (plan.differences.size() == 1 ? " difference from " : " differences from ") +
                  file;
  result.advice = "ormelctl apply " + file + " makes it as in the document";
  result.message = site::lines(plan);
  result.data = site::rows(plan);
  result.columns = site::DIFFERENCE_COLUMNS;
  return result;
}

Result site_apply(const Arguments& arguments) {
  const std::string& file = arguments.words[0];
  ormel::Json document;
  Result problem;
  if (!site::read_document(file, document, problem)) return problem;
  const ChangeLock lock;
  if (!lock) return locked_out();
  const ormel::Json now = site::present();
  const site::Plan plan =
      site::make_plan(document.get(), now, site::folder_of(file), arguments.has("prune"));
  if (!plan.wrong.empty()) return site::refused_document(plan);
  if (arguments.has("dry-run")) {
    return done(
        site::lines(plan) + "it would be: " + site::counts(plan) + "\nnothing was changed\n",
        site::rows(plan));
  }
  if (arguments.terminal && !plan.steps.empty()) std::fputs("applying ...\n", stderr);
  return site::run_steps(plan, file);
}

}  // namespace ormelctl
