// Backups over the web: made and downloaded, looked into, and restored.
//
// The passphrase comes in the form as `passphrase`, and an upload as `backup`. It is kept nowhere.
#include "ormel/changes/backup.h"

#include <string>

#include "ormel/base/file.h"
#include "ormel/changes/backup_restore.h"
#include "ormel/web/routes.h"

namespace ormel::cgi::backup {

using changes::Backup;
using changes::Fault;
using changes::Restored;
using changes::Selection;

namespace {

constexpr size_t LARGEST = size_t{1} << 20U;  // bytes of an upload
constexpr const char* HEAD =
    "Content-Type: application/octet-stream\r\n"
    "Content-Disposition: attachment; filename=backup.ormel\r\n"
    "Cache-Control: no-store\r\n";

Outcome refusal(const Fault& fault) {
  return {fault.code, fault.advice.empty() ? fault.reason : fault.reason + "; " + fault.advice};
}

// A file without a name for an answer that may be of any size.
File holding(const std::string& content) {
  File file{std::tmpfile()};
  const bool written =
      file && std::fwrite(content.data(), 1, content.size(), file.get()) == content.size() &&
      std::fflush(file.get()) == 0;
  if (!written) return nullptr;
  std::rewind(file.get());
  return file;
}

int send_backup(const Request& request, SentFile& file) {
  Backup made;
  std::string sealed;
  if (const Fault fault = changes::collect(made)) return fault.code;
  if (const Fault fault = changes::write_backup(made, request.value("passphrase"), sealed))
    return fault.code;
  file.head = HEAD;
  file.content = holding(sealed);
  return file.content ? NO_ERROR : ERR_SAVE_FILE;
}

Fault open_upload(const Request& request, Backup& out, Selection& selection) {
  cgi_var* const upload = request.find("backup");
  std::string sealed;
  if (!get_cgi_var_filename(upload) || get_cgi_var_status(upload) != CORRECT_VAR ||
      !system::read_file(request.value("backup"), sealed, LARGEST))
    return {ERR_REGULAR_FILE, "there is no backup of up to 1 MiB in the request",
            "ormelctl restore takes larger ones"};
  selection = Selection::all();
  if (request.filled("only")) {
    if (Fault fault = Selection::read(request.value("only"), selection)) return fault;
  }
  return changes::read_backup(sealed, request.value("passphrase"), out);
}

Outcome inspect(const Request& request, JsonValue& reply) {
  Backup opened;
  Selection selection;
  Restored expected;
  if (const Fault fault = open_upload(request, opened, selection)) return refusal(fault);
  if (const Fault fault = changes::preview(opened, selection, expected)) return refusal(fault);
  JsonValue& data = reply["data"];
  data["contents"] = changes::contents(opened).release();
  data["expected"] = changes::document_of(expected).release();
  return {};
}

Outcome restore(const Request& request, JsonValue& reply) {
  Backup opened;
  Selection selection;
  Restored restored;
  if (const Fault fault = open_upload(request, opened, selection)) return refusal(fault);
  if (const Fault fault = changes::restore(opened, selection, restored)) return refusal(fault);
  reply["data"] = changes::document_of(restored).release();
  return {};
}

constexpr Route ROWS[] = {
    {"/ormel/backup/download", ADMINISTRATOR, REVEALS, file<send_backup>},
    {"/ormel/backup/inspect", ADMINISTRATOR, READS, json<inspect>},
    {"/ormel/backup/restore", ADMINISTRATOR, CHANGES, json<restore>},
};

}  // namespace

const Routes BACKUP{ROWS};

}  // namespace ormel::cgi::backup
