// Backups of all state, and restoring them.
#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

#include "ormel/base/error.h"
#include "ormel/base/file.h"
#include "ormel/changes/backup_restore.h"
#include "ormelctl/advice.h"
#include "ormelctl/command.h"
#include "ormelctl/service.h"

namespace ormelctl {
namespace {

using ormel::changes::Backup;
using ormel::changes::Fault;
using ormel::changes::Restored;
using ormel::changes::Selection;

Result failed(const Fault& fault) {
  Result result = ormelctl::failed(fault.code, fault.reason);
  result.advice = fault.advice;
  return result;
}

// From the file, or from the terminal, twice where it is a new one.
bool read_passphrase(const Arguments& arguments, bool is_new, std::string& out, Result& problem) {
  const bool given = arguments.has("passphrase-file");
  const auto secret = given                ? read_secret(arguments.value("passphrase-file"))
                      : arguments.terminal ? ask_secret("Passphrase of the backup")
                                           : std::nullopt;
  if (!secret) {
    problem = given ? ormelctl::failed(Exit::Failed,
                                       "--passphrase-file: " + arguments.value("passphrase-file") +
                                           " cannot be read, or is not one line")
                    : ormelctl::failed(Exit::Usage, "--passphrase-file is missing",
                                       "a file with the passphrase, or - for standard input");
    return false;
  }
  out = *secret;
  if (is_new && !given && ask_secret("Once more") != secret) {
    problem = ormelctl::failed(Exit::Failed, "the passphrases differ", "type the same one twice");
    return false;
  }
  return true;
}

std::string size_sentence(size_t files, size_t bytes) {
  return std::to_string(files) + (files == 1 ? " file, " : " files, ") +
         size_text(static_cast<double>(bytes)) + ", encrypted";
}

// Reads and opens the backup of a call.
bool open_backup(const Arguments& arguments, Backup& out, Result& problem) {
  const std::string& file = arguments.words[0];
  std::string sealed, passphrase;
  if (!ormel::system::read_file(file.c_str(), sealed, ormel::changes::MOST_BACKUP)) {
    problem = ormelctl::failed(Exit::NotFound, file + " cannot be read",
                               "name a file that \"ormelctl backup\" has made");
    return false;
  }
  if (!read_passphrase(arguments, false, passphrase, problem)) return false;
  if (const Fault fault = ormel::changes::read_backup(sealed, passphrase, out)) {
    problem = failed(fault);
    return false;
  }
  return true;
}

void add_lines(std::string& text, const char* word, const std::vector<std::string>& names) {
  for (const std::string& name : names) text += std::string(word) + ' ' + printable(name) + '\n';
}

std::string previewed(const Restored& restored) {
  std::string text;
  add_lines(text, "~", restored.changed);
  add_lines(text, "+", restored.added);
  add_lines(text, "-", restored.removed);
  add_lines(text, "would interrupt", restored.interrupted);
  add_lines(text, "warning:", restored.warnings);
  return text + "nothing was changed\n";
}

std::string counted(const Restored& restored) {
  const size_t differing =
      restored.changed.size() + restored.added.size() + restored.removed.size();
  std::string text = "restored: " + std::to_string(differing) + " differed, " +
                     std::to_string(restored.same) + " files were so already";
  const size_t warnings = restored.warnings.size();
  if (warnings != 0)
    text += "; " + std::to_string(warnings) + (warnings == 1 ? " warning" : " warnings");
  text += '\n';
  add_lines(text, "warning:", restored.warnings);
  return text;
}

}  // namespace

Result backup(const Arguments& arguments) {
  const std::string& file = arguments.words[0];
  std::string passphrase, sealed;
  Result problem;
  if (!read_passphrase(arguments, true, passphrase, problem)) return problem;
  Backup made;
  {
    const ChangeLock lock;
    if (!lock) return locked_out();
    if (const Fault fault = ormel::changes::collect(made)) return failed(fault);
  }
  if (const Fault fault = ormel::changes::write_backup(made, passphrase, sealed))
    return failed(fault);
  if (!ormel::system::replace_file(file, sealed, fenro::PRIVATE_FILE))
    return ormelctl::failed(Exit::Failed, file + " cannot be written",
                            "name a file in a folder that has room");
  ormel::Json data = ormel::changes::contents(made);
  const std::string text =
      ormel::changes::summary(data) + "; " + size_sentence(made.files.size(), sealed.size());
  return done(text, std::move(data));
}

Result restore(const Arguments& arguments) {
  Selection selection = Selection::all();
  if (arguments.has("only")) {
    if (const Fault fault = Selection::read(arguments.value("only"), selection)) {
      return ormelctl::failed(Exit::Usage, "--only: " + fault.reason, fault.advice);
    }
  }
  const bool copies = arguments.has("as-copy");
  if (copies && arguments.value("only") != "profiles")
    return ormelctl::failed(Exit::Usage, "--as-copy is for client profiles alone",
                            "add --only profiles");
  Backup opened;
  Result problem;
  if (!open_backup(arguments, opened, problem)) return problem;
  const ChangeLock lock;
  if (!lock) return locked_out();
  Restored restored;
  const bool dry = arguments.has("dry-run");
  if (!dry && arguments.terminal) std::fputs("restoring ...\n", stderr);
  const Fault fault = copies ? ormel::changes::copy_profiles(opened, dry, restored)
                      : dry  ? ormel::changes::preview(opened, selection, restored)
                             : ormel::changes::restore(opened, selection, restored);
  if (fault) return failed(fault);
  return done(dry ? previewed(restored) : counted(restored), ormel::changes::document_of(restored));
}

}  // namespace ormelctl
