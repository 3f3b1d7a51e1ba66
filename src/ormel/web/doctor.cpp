// What is wrong: the program ormelctl looks, and these routes pass on what it finds.
//
// A look at a profile takes up to 40 seconds. `start` begins it and returns an id, `get` returns
// the steps so far. They are in a file of the id's name in FOLDER, which ormelctl replaces after
// each step.
#include <dirent.h>
#include <random>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include "base/file.h"
#include "base/tunnel.h"
#include "ormel/base/handle.h"
#include "ormel/base/text.h"
#include "ormel/host/process.h"
#include "ormel/options/table.h"
#include "ormel/web/routes.h"

namespace ormel::cgi::doctor {

namespace {

constexpr const char* TOOL = "/usr/sbin/ormelctl";
constexpr const char* FOLDER = "/run/fenro/doctor";
constexpr size_t ID_LENGTH = 16;
constexpr std::string_view DIGITS = "0123456789abcdef";
constexpr long KEPT_SECONDS = 3600;
constexpr int MOST_SLOTS = 32;

std::string new_id() {
  std::random_device source;
  std::string id;
  while (id.size() < ID_LENGTH) id += DIGITS[source() % DIGITS.size()];
  return id;
}

bool is_id(const std::string& text) {
  return text.size() == ID_LENGTH && text.find_first_not_of(DIGITS) == std::string::npos;
}

void remove_old_runs() {
  const Dir entries{opendir(FOLDER)};
  while (const dirent* entry = entries ? readdir(entries.get()) : nullptr) {
    const std::string path = std::string(FOLDER) + '/' + entry->d_name;
    struct stat info {};
    if (is_id(entry->d_name) && lstat(path.c_str(), &info) == 0 &&
        std::time(nullptr) - info.st_mtime > KEPT_SECONDS)
      unlink(path.c_str());
  }
}

Outcome look_at_host(const Request&, JsonValue& reply) {
  const MibIo out{mib_io_create()};
  const std::vector<std::string> command{TOOL, "doctor", "--json"};
  if (!out) return {ERR_NO_MEMORY};
  std::ignore =
      mib_io_execv(nullptr, out.get(), nullptr,
                   system::Argv(command).get());  // it fails when it has found a failure, too
  const char* const text = mib_io_read(out.get(), nullptr);
  const Json document{text ? json_loads(text, 0, nullptr) : nullptr};
  json_t* const data = json_object_get(document.get(), "data");
  if (!json_is_array(data)) return {ERR_CMD_FAILED, "the doctor does not answer"};
  reply["data"] = json_incref(data);
  return {};
}

Outcome start(const Request& request, JsonValue& reply) {
  const TYPE type = option::parse_type(request.value("type"));
  const int index = request.number("index", 0);
  const TunnelFacts* const facts = is_client(type) ? find_tunnel(type) : nullptr;
  if (!facts) return {ERR_WRONG_TYPE};
  if (index < 1 || index > MOST_SLOTS) return {ERR_CONFIGURE_INDEX};
  if (!fenro::make_private_folder(FOLDER)) return {ERR_SAVE_FILE};
  remove_old_runs();
  const std::string id = new_id();
  if (!fenro::replace_file(std::string(FOLDER) + '/' + id, R"({"done":false,"steps":[]})",
                           fenro::PRIVATE_FILE))
    return {ERR_SAVE_FILE};
  const std::string target = to_lower(facts->log_name) + '/' + std::to_string(index);
  if (const int rc = system::background({TOOL, "doctor", target, "--progress", id, "--json"});
      rc != NO_ERROR)
    return {rc};
  reply["data"]["id"] = id;
  return {};
}

Outcome get(const Request& request, JsonValue& reply) {
  const std::string id = request.value("id");
  std::string text;
  if (!is_id(id) || fenro::read_file((std::string(FOLDER) + '/' + id).c_str(), text) != 0)
    return {ERR_CONFIGURE_INDEX};
  Json document{json_loadb(text.data(), text.size(), 0, nullptr)};
  if (!document) return {ERR_WRONG_JSON_FORMAT};
  reply["data"] = document.release();
  return {};
}

constexpr Route ROWS[] = {
    {"/ormel/doctor/host", ADMINISTRATOR, READS, json<look_at_host>},
    {"/ormel/doctor/start", ADMINISTRATOR, READS, json<start>},
    {"/ormel/doctor/get", ADMINISTRATOR, READS, json<get>},
};

}  // namespace

const Routes DOCTOR{ROWS};

}  // namespace ormel::cgi::doctor
