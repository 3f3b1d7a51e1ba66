#include "ormel/changes/tar.h"

#include <archive.h>
#include <archive_entry.h>
#include <memory>

#include "base/file.h"
#include "ormel/base/library.h"

namespace ormel::changes {

namespace {

// Few runs meet a backup, so the library is loaded then.
constexpr const char* LIBRARY = "libarchive.so.13";
constexpr size_t BLOCK = 65536;

struct Api {
  decltype(&::archive_read_new) reader;
  decltype(&::archive_read_free) free_reader;
  decltype(&::archive_read_support_format_tar) read_tar;
  decltype(&::archive_read_open_memory) open_memory;
  decltype(&::archive_read_next_header) next;
  decltype(&::archive_read_data) read;
  decltype(&::archive_write_new) writer;
  decltype(&::archive_write_free) free_writer;
  decltype(&::archive_write_set_format_ustar) write_tar;
  decltype(&::archive_write_set_bytes_in_last_block) set_last_block;
  decltype(&::archive_write_open) open_writer;
  decltype(&::archive_write_header) write_header;
  decltype(&::archive_write_data) write;
  decltype(&::archive_write_close) close;
  decltype(&::archive_entry_new) entry;
  decltype(&::archive_entry_free) free_entry;
  decltype(&::archive_entry_pathname) name;
  decltype(&::archive_entry_hardlink) hardlink;
  decltype(&::archive_entry_filetype) type;
  decltype(&::archive_entry_set_pathname) set_name;
  decltype(&::archive_entry_set_filetype) set_type;
  decltype(&::archive_entry_set_perm) set_mode;
  decltype(&::archive_entry_set_size) set_size;
  decltype(&::archive_error_string) error;
};

bool load_reading(Api& api) {
  return load_library(LIBRARY) && find_function(api.reader, "archive_read_new") &&
         find_function(api.free_reader, "archive_read_free") &&
         find_function(api.read_tar, "archive_read_support_format_tar") &&
         find_function(api.open_memory, "archive_read_open_memory") &&
         find_function(api.next, "archive_read_next_header") &&
         find_function(api.read, "archive_read_data") &&
         find_function(api.name, "archive_entry_pathname") &&
         find_function(api.hardlink, "archive_entry_hardlink") &&
         find_function(api.type, "archive_entry_filetype") &&
         find_function(api.error, "archive_error_string");
}

bool load_writing(Api& api) {
  return find_function(api.writer, "archive_write_new") &&
         find_function(api.free_writer, "archive_write_free") &&
         find_function(api.write_tar, "archive_write_set_format_ustar") &&
         find_function(api.set_last_block, "archive_write_set_bytes_in_last_block") &&
         find_function(api.open_writer, "archive_write_open") &&
         find_function(api.write_header, "archive_write_header") &&
         find_function(api.write, "archive_write_data") &&
         find_function(api.close, "archive_write_close") &&
         find_function(api.entry, "archive_entry_new") &&
         find_function(api.free_entry, "archive_entry_free") &&
         find_function(api.set_name, "archive_entry_set_pathname") &&
         find_function(api.set_type, "archive_entry_set_filetype") &&
         find_function(api.set_mode, "archive_entry_set_perm") &&
         find_function(api.set_size, "archive_entry_set_size");
}

const Api* api() {
  static Api functions{};
  static const bool loaded = load_reading(functions) && load_writing(functions);
  return loaded ? &functions : nullptr;
}

constexpr const char* NO_LIBRARY = "backups need the package libarchive13";

struct FreeReader {
  void operator()(archive* one) const noexcept { api()->free_reader(one); }
};
struct FreeWriter {
  void operator()(archive* one) const noexcept { api()->free_writer(one); }
};
struct FreeEntry {
  void operator()(archive_entry* one) const noexcept { api()->free_entry(one); }
};
using Reader = std::unique_ptr<archive, FreeReader>;
using Writer = std::unique_ptr<archive, FreeWriter>;
using Entry = std::unique_ptr<archive_entry, FreeEntry>;

std::string problem(archive* one) {
  const char* const text = api()->error(one);
  return text ? text : "the archive is damaged";
}

la_ssize_t append(archive*, void* out, const void* bytes, size_t length) {
  static_cast<std::string*>(out)->append(static_cast<const char*>(bytes), length);
  return static_cast<la_ssize_t>(length);
}

bool add(archive* out, const TarFile& file) {
  const Entry entry{api()->entry()};
  if (!entry) return false;
  api()->set_name(entry.get(), file.name.c_str());
  api()->set_type(entry.get(), AE_IFREG);
  api()->set_mode(entry.get(), fenro::PRIVATE_FILE);
  api()->set_size(entry.get(), static_cast<la_int64_t>(file.content.size()));
  return api()->write_header(out, entry.get()) == ARCHIVE_OK &&
         api()->write(out, file.content.data(), file.content.size()) ==
             static_cast<la_ssize_t>(file.content.size());
}

// The content of the present entry, of at most `room` bytes.
std::string read_content(archive* in, std::string& content, size_t room) {
  std::string block(BLOCK, '\0');
  la_ssize_t got = 0;
  while ((got = api()->read(in, block.data(), block.size())) > 0) {
    content.append(block, 0, static_cast<size_t>(got));
    if (content.size() > room) return "a file in the archive is larger than the archive";
  }
  return got == 0 ? "" : problem(in);
}

std::string check_entry(archive_entry* entry) {
  const bool plain = api()->type(entry) == AE_IFREG && !api()->hardlink(entry);
  return plain && api()->name(entry) ? "" : "the archive holds something else than plain files";
}

}  // namespace

std::string pack_tar(const std::vector<TarFile>& files, std::string& out) {
  out.clear();
  if (!api()) return NO_LIBRARY;
  const Writer writer{api()->writer()};
  if (!writer) return "out of memory";
  api()->write_tar(writer.get());
  api()->set_last_block(writer.get(), 1);
  if (api()->open_writer(writer.get(), &out, nullptr, append, nullptr) != ARCHIVE_OK)
    return problem(writer.get());
  for (const TarFile& file : files) {
    if (!add(writer.get(), file)) return problem(writer.get());
  }
  return api()->close(writer.get()) == ARCHIVE_OK ? "" : problem(writer.get());
}

std::string unpack_tar(const std::string& text, std::vector<TarFile>& files) {
  if (!api()) return NO_LIBRARY;
  const Reader reader{api()->reader()};
  if (!reader) return "out of memory";
  api()->read_tar(reader.get());
  if (api()->open_memory(reader.get(), text.data(), text.size()) != ARCHIVE_OK)
    return problem(reader.get());
  size_t room = text.size();
  archive_entry* entry = nullptr;
  int status = 0;
  while ((status = api()->next(reader.get(), &entry)) == ARCHIVE_OK) {
    if (files.size() == MOST_TAR_FILES) return "the archive holds too many files";
    if (std::string wrong = check_entry(entry); !wrong.empty()) return wrong;
    TarFile file{api()->name(entry), {}};
    if (std::string wrong = read_content(reader.get(), file.content, room); !wrong.empty())
      return wrong;
    room -= file.content.size();
    files.push_back(std::move(file));
  }
  return status == ARCHIVE_EOF ? "" : problem(reader.get());
}

}  // namespace ormel::changes
