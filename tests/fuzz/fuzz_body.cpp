// A whole request by its environment and descriptor, with small reads against one large read.
// Input: the recipe line, the content type, the query string, then the body.
#include <sys/mman.h>

#include "fuzz/cgi_fuzz.h"

namespace {

constexpr off_t UPLOAD_LIMIT = 100;
constexpr size_t WHOLE = 65536;

void set_environment(const char* name, std::string_view value) {
  const std::string text(value.substr(0, value.find('\0')));
  setenv(name, text.c_str(), 1);
}

std::string perform(cgi_settings settings, std::string_view body) {
  settings.fstream = memfd_create("body", MFD_CLOEXEC);
  fuzz::require(
      write(settings.fstream, body.data(), body.size()) == static_cast<ssize_t>(body.size()),
      "body written");
  lseek(settings.fstream, 0, SEEK_SET);
  const CgiRequest request(settings);
  close(settings.fstream);
  fuzz::require(request.vars() != nullptr, "every request gives a list");
  return fuzz::describe(request.vars());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const fuzz::UploadFolder folder;
  const int free_descriptor = fuzz::lowest_free_descriptor();
  std::string_view body = fuzz::input(data, size);
  const fuzz::Recipe recipe(fuzz::take_line(body));
  set_environment("CONTENT_TYPE", fuzz::take_line(body));
  set_environment("QUERY_STRING", fuzz::take_line(body));
  setenv("CONTENT_LENGTH", "1", 1);  // present, and a lie

  fuzz::require(perform(folder.settings(recipe.mode, UPLOAD_LIMIT, recipe.piece(0)), body) ==
                    perform(folder.settings(recipe.mode, UPLOAD_LIMIT, WHOLE), body),
                "small reads give what one large read gives");
  fuzz::require(folder.empty(), "no temporary file remains");
  fuzz::require(fuzz::lowest_free_descriptor() == free_descriptor, "no descriptor remains");
  return 0;
}
