// Figures for a monitoring system, and the tokens by which it gets them itself.
#include "ormel/web/metrics.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/file.h"
#include "base/handle.h"
#include "ormel/actions/token.h"
#include "ormel/base/error.h"
#include "ormelctl/advice.h"
#include "ormelctl/command.h"
#include "ormelctl/service.h"

namespace ormelctl {
namespace {

constexpr mode_t FOR_ALL = 0644;
constexpr long DAY = 86400;

const Columns TOKEN_COLUMNS = {
    {"name", "NAME"}, {"id", "ID"},          {"scope", "SCOPE"},      {"used_text", "LAST USE"},
    {"from", "FROM"}, {"days", "DAYS LEFT"}, {"state_text", "STATE"}, {"by_text", "MADE BY"}};

void add_texts(json_t* row) {
  const long used = number_of(row, "used");
  const long left = number_of(row, "expires") - std::time(nullptr);
  json_object_set_new(row, "used_text",
                      json_string(used == 0 ? "never" : moment_text(used).c_str()));
  json_object_set_new(row, "days", left > 0 ? json_integer(left / DAY) : json_string("expired"));
  const std::string by = text_of(row, "by"), state = text_of(row, "state");
  json_object_set_new(row, "by_text", json_string(by.empty() ? "unknown" : by.c_str()));
  json_object_set_new(
      row, "state_text",
      json_string(state == "no-maker" ? "refused: its maker is no administrator" : state.c_str()));
}

// The folder may belong to the collector: a link in the file's place is replaced and not followed,
// or its owner could have any file of this host overwritten.
bool put_file(const std::string& path, const std::string& text) {
  std::string name = path + ".XXXXXX";
  const fenro::Fd fd{mkostemp(name.data(), O_CLOEXEC)};
  if (!fd) return false;
  if (fchmod(fd.get(), FOR_ALL) == 0 && fenro::write_all(fd.get(), text) && fsync(fd.get()) == 0 &&
      rename(name.c_str(), path.c_str()) == 0)
    return true;
  const int why = errno;
  unlink(name.c_str());
  errno = why;
  return false;
}

}  // namespace

Result metrics(const Arguments& arguments) {
  const std::string text = ormel::cgi::metrics::exposition(arguments.has("users"));
  ormel::Json data{json_pack("{s:s}", "text", text.c_str())};
  if (!arguments.has("textfile")) return done(text, std::move(data));
  const std::string file = arguments.value("textfile");
  if (!put_file(file, text)) {
    const char* const why = strerrordesc_np(errno);
    return failed(Exit::Failed, file + " cannot be written: " + (why ? why : "unknown error"),
                  "its folder must exist, and have room");
  }
  return done(file + " is written", std::move(data));
}

Result token_list(const Arguments&) {
  const Reply reply = call("/ormel/token/list");
  if (reply.error != 0) return failed(reply.error, reply.reason);
  ormel::Json rows{json_incref(reply.data())};
  size_t at = 0;
  json_t* row = nullptr;
  json_array_foreach(rows.get(), at, row) add_texts(row);
  const bool none = json_array_size(rows.get()) == 0;
  return done(none ? "There are no tokens: ormelctl token add prometheus --scope metrics" : "",
              std::move(rows), TOKEN_COLUMNS);
}

Result token_add(const Arguments& arguments) {
  if (!arguments.has("scope"))
    return failed(Exit::Usage, "--scope is missing: metrics, read or admin");
  const long life = arguments.seconds("expires", ormel::token::DEFAULT_LIFE);
  if (life < 0) return failed(Exit::Usage, "--expires takes a time such as 1h, 30d or 365d");
  const std::string& name = arguments.words[0];
  const Reply reply = call(
      "/ormel/token/add",
      {{"name", name}, {"scope", arguments.value("scope")}, {"seconds", std::to_string(life)}});
  if (reply.error != 0) {
    Result result = failed(reply.error, reply.reason);
    if (reply.error == ormel::ERR_VALUE) result.exit = Exit::Usage;
    return result;
  }
  return done(text_of(reply.data(), "token"), ormel::Json{json_incref(reply.data())});
}

Result token_remove(const Arguments& arguments) {
  const std::string& name = arguments.words[0];
  const Reply reply = call("/ormel/token/remove", {{"name", name}});
  if (reply.error == ormel::ERR_CONFIGURE_INDEX) {
    const Reply known = call("/ormel/token/list");
    return failed(Exit::NotFound, reply.reason,
                  did_you_mean(name, names_in(known.data(), "name"), "ormelctl token list"));
  }
  return reply.error != 0 ? failed(reply.error, reply.reason)
                          : done("the token " + name + " is not valid any more");
}

}  // namespace ormelctl
