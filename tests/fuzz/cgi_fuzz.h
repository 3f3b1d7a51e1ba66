// What the fuzz targets of the request parser share: the lines that head an input, the pieces that
// a text is cut into, and a printed form of the variables to compare.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <unistd.h>

#include "fuzz/require.h"
#include "ormel/cgi/cgi.h"
#include "support/files.h"

namespace fuzz {

inline std::string_view input(const uint8_t* data, size_t size) {
  return {reinterpret_cast<const char*>(data), size};
}

// Takes the next line off the input, without its end.
inline std::string_view take_line(std::string_view& rest) {
  const size_t end = rest.find('\n');
  const std::string_view line = rest.substr(0, end);
  rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
  return line;
}

// The first line of every input: its first byte chooses the mode, each further one is the length of
// a piece.
struct Recipe {
  explicit Recipe(std::string_view line)
      : mode(static_cast<cgi_var_mode>(line.empty() ? 1 : static_cast<unsigned char>(line[0]) % 3)),
        pieces(line.empty() ? line : line.substr(1)) {}

  [[nodiscard]] size_t piece(size_t number) const {
    return pieces.empty() ? SIZE_MAX
                          : static_cast<unsigned char>(pieces[number % pieces.size()]) % 48U + 1;
  }

  cgi_var_mode mode;
  std::string_view pieces;
};

using Execute = std::function<size_t(const char* bytes, size_t length)>;

// Runs `text` in pieces, each in memory of its own, so that a look beyond a piece is seen. The
// bytes used.
inline size_t run_pieces(std::string_view text, const Recipe& recipe, const Execute& execute) {
  size_t used = 0;
  for (size_t number = 0; used < text.size(); ++number) {
    const std::string_view part = text.substr(used, recipe.piece(number));
    const auto copy = std::make_unique<char[]>(part.size());
    part.copy(copy.get(), part.size());
    const size_t taken = execute(copy.get(), part.size());
    used += taken;
    if (taken < part.size()) break;
  }
  return used;
}

inline std::string describe_record(cgi_var* var) {
  const char* value = get_cgi_var_value(var);
  const char* filename = get_cgi_var_filename(var);
  std::string text = std::string(get_cgi_var_name(var)) + "=";
  if (filename) {
    text +=
        (std::filesystem::exists(value) ? support::read(value) : "(no file)") + " file " + filename;
  } else {
    text += value ? std::string(value) : "(null)";
    text += " of " + std::to_string(var->length);
  }
  return text + " status " + std::to_string(get_cgi_var_status(var)) + "\n";
}

// Every variable with its repeats, one a line; the path of an upload is replaced by what its file
// holds.
inline std::string describe(cgi_var* head) {
  std::string text;
  for (cgi_var* var = get_cgi_var(head, nullptr); var; var = get_cgi_var(var, nullptr)) {
    for (cgi_var* value = var; value; value = value->list) text += describe_record(value);
  }
  return text;
}

// A private folder for uploads; `settings` makes them there.
class UploadFolder {
 public:
  UploadFolder() {
    std::string path = std::filesystem::temp_directory_path() / "ormel-cgi-XXXXXX";
    require(mkdtemp(path.data()) != nullptr, "a folder can be made");
    folder_ = path;
    tempname_ = path + "/upload-XXXXXX";
  }
  UploadFolder(const UploadFolder&) = delete;
  UploadFolder& operator=(const UploadFolder&) = delete;
  ~UploadFolder() { std::filesystem::remove_all(folder_); }

  [[nodiscard]] cgi_settings settings(cgi_var_mode mode, off_t upload_limit,
                                      size_t buffer_size = 2048) const {
    return {0, mode, tempname_.c_str(), upload_limit, buffer_size};
  }
  [[nodiscard]] bool empty() const { return std::filesystem::is_empty(folder_); }
  [[nodiscard]] const std::filesystem::path& path() const { return folder_; }

 private:
  std::filesystem::path folder_;
  std::string tempname_;
};

// The lowest free descriptor: the same before and after, or one was left open.
inline int lowest_free_descriptor() {
  const int fd = dup(STDERR_FILENO);
  close(fd);
  return fd;
}

}  // namespace fuzz
