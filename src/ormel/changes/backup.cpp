#include "ormel/changes/backup.h"

#include <algorithm>
#include <ctime>
#include <map>
#include <set>
#include <unistd.h>

#include "base/utf8.h"
#include "ormel/base/crypto.h"
#include "ormel/base/error.h"
#include "ormel/base/file.h"
#include "ormel/base/seal.h"
#include "ormel/changes/tar.h"

namespace ormel::changes {

namespace {

constexpr int FORMAT = 1;
constexpr const char* MANIFEST = "manifest.json";

Fault damaged(const std::string& what) {
  return {ERR_REGULAR_FILE, "the backup is damaged: " + what, "use another copy of the file"};
}

Fault newer() {
  return {ERR_NOT_SUPPORT, "the backup was made by a newer version of this program",
          "update this host first: apt upgrade ormel"};
}

struct SealingFault {
  openssl::Sealing sealing;
  Fault fault;
};

Fault fault_of(openssl::Sealing sealing) {
  using openssl::Sealing;
  static const SealingFault FAULTS[] = {
      {Sealing::Done, {}},
      {Sealing::NoLibrary,
       {ERR_NO_MEMORY, "the cipher cannot be used",
        "look whether libcrypto.so.3 is installed and 64 MiB of memory are free"}},
      {Sealing::NotSealed,
       {ERR_REGULAR_FILE, "this is no backup, or only a part of one",
        "ormelctl backup makes one; copy the file again"}},
      {Sealing::NewerFormat, newer()},
      {Sealing::Unusual, damaged("its costs of the passphrase are out of range")},
      {Sealing::WrongPassphrase,
       {ERR_SESSION_PASS, "the passphrase is wrong, or the backup was changed",
        "try the passphrase again, or another copy of the file"}},
  };
  return std::ranges::find(FAULTS, sealing, &SealingFault::sealing)->fault;
}

std::string host_name() {
  char name[256] = "";
  return gethostname(name, sizeof name - 1) == 0 ? name : "";
}

Json manifest_of(const Backup& backup) {
  Json files{json_array()};
  for (const BackupFile& file : backup.files) {
    json_array_append_new(files.get(),
                          json_pack("{s:s, s:I, s:s}", "path", file.path.c_str(), "size",
                                    static_cast<json_int_t>(file.content.size()), "sha256",
                                    openssl::sha256(file.content).c_str()));
  }
  return Json{json_pack("{s:i, s:s, s:s, s:I, s:o}", "format", FORMAT, "version",
                        backup.version.c_str(), "host", backup.host.c_str(), "time",
                        static_cast<json_int_t>(backup.time), "files", files.release())};
}

std::string text_of(const json_t* object, const char* key) {
  const json_t* const value = json_object_get(object, key);
  return json_is_string(value) ? std::string(json_string_value(value), json_string_length(value))
                               : std::string();
}

Fault read_head(const json_t* manifest, Backup& out) {
  const json_t* const format = json_object_get(manifest, "format");
  if (!json_is_integer(format)) return damaged("its manifest is malformed");
  if (json_integer_value(format) > FORMAT) return newer();
  if (json_integer_value(format) != FORMAT || !json_is_array(json_object_get(manifest, "files")))
    return damaged("its manifest is malformed");
  out.version = text_of(manifest, "version");
  out.host = text_of(manifest, "host");
  out.time = json_integer_value(json_object_get(manifest, "time"));
  return {};
}

// Whether a file is what its row of the manifest says, and one that a backup may have.
Fault check_file(const json_t* row, const TarFile& file, const Backup& before) {
  const std::string path = text_of(row, "path");
  if (path.size() < 2 || path.substr(1) != file.name)
    return damaged("its files are not those of its manifest");
  if (!find_state_file(path) || before.find(path))
    return damaged(path + " is no file of this service, or comes twice");
  const json_t* const size = json_object_get(row, "size");
  const bool same = json_is_integer(size) &&
                    json_integer_value(size) == static_cast<json_int_t>(file.content.size()) &&
                    text_of(row, "sha256") == openssl::sha256(file.content);
  return same ? Fault{} : damaged(path + " is not what the manifest says");
}

Fault take_files(const json_t* rows, std::vector<TarFile>& packed, Backup& out) {
  if (json_array_size(rows) != packed.size() - 1)
    return damaged("its files are not those of its manifest");
  for (size_t i = 1; i < packed.size(); ++i) {
    if (Fault fault = check_file(json_array_get(rows, i - 1), packed[i], out)) return fault;
    out.files.push_back({'/' + packed[i].name, std::move(packed[i].content)});
  }
  return {};
}

}  // namespace

const BackupFile* Backup::find(std::string_view path) const {
  const auto found = std::ranges::find(files, path, &BackupFile::path);
  return found == files.end() ? nullptr : &*found;
}

Fault check_passphrase(const std::string& passphrase) {
  const bool good = passphrase.size() >= openssl::LEAST_PASSPHRASE &&
                    passphrase.size() <= openssl::MOST_PASSPHRASE;
  if (good) return {};
  return {ERR_PASS_LENGTH, "the passphrase has 8 to 1024 bytes", "choose a longer one"};
}

Fault collect(Backup& out) {
  out = {
      .version = ORMEL_VERSION, .host = fenro::valid_utf8(host_name()), .time = std::time(nullptr)};
  for (const std::string& path : existing_state()) {
    BackupFile file{path, {}};
    if (!system::read_file(path.c_str(), file.content, MOST_BACKUP))
      return {ERR_REGULAR_FILE, path + " cannot be read", "look at the file and its disk"};
    out.files.push_back(std::move(file));
  }
  return {};
}

Fault write_backup(const Backup& backup, const std::string& passphrase, std::string& out) {
  if (Fault fault = check_passphrase(passphrase)) return fault;
  const CString manifest{json_dumps(manifest_of(backup).get(), JSON_COMPACT)};
  if (!manifest) return {ERR_NO_MEMORY, "out of memory", "free some memory"};
  std::vector<TarFile> packed{{MANIFEST, manifest.get()}};
  for (const BackupFile& file : backup.files) packed.push_back({file.path.substr(1), file.content});
  std::string tar;
  if (std::string wrong = pack_tar(packed, tar); !wrong.empty())
    return {ERR_CMD_FAILED, std::move(wrong), "apt install libarchive13"};
  return fault_of(openssl::seal(tar, passphrase, out));
}

Fault unpack_backup(const std::string& tar, Backup& out) {
  std::vector<TarFile> packed;
  if (const std::string wrong = unpack_tar(tar, packed); !wrong.empty()) return damaged(wrong);
  if (packed.empty() || packed.front().name != MANIFEST) return damaged("it has no manifest");
  const std::string& text = packed.front().content;
  const Json manifest{json_loadb(text.data(), text.size(), JSON_REJECT_DUPLICATES, nullptr)};
  if (Fault fault = read_head(manifest.get(), out)) return fault;
  return take_files(json_object_get(manifest.get(), "files"), packed, out);
}

Fault read_backup(std::string_view sealed, const std::string& passphrase, Backup& out) {
  out = {};
  std::string tar;
  if (Fault fault = fault_of(openssl::unseal(sealed, passphrase, tar))) return fault;
  Fault fault = unpack_backup(tar, out);
  if (fault) out = {};
  return fault;
}

}  // namespace ormel::changes
