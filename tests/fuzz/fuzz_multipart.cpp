// The multipart machine on a body cut anywhere. Input: the recipe line, the boundary, then the
// body.
#include <tuple>

#include "fuzz/cgi_fuzz.h"
#include "ormel/cgi/cgi_parser.h"
#include "ormel/cgi/multipart.h"

namespace {

constexpr off_t UPLOAD_LIMIT = 100;

// What comes of the body in these pieces. How many bytes were used is left out: whether a refused
// upload stops the parser at its last allowed byte or at the end of the line depends on the pieces.
std::string parse(std::string_view body, const fuzz::Recipe& recipe, const cgi_settings& settings,
                  const std::string& content_type) {
  cgi_parser parser(settings, content_type.c_str());
  const MultipartParser state = new_multipart_parser(&parser);
  fuzz::require(state != nullptr, "a boundary gives a parser");
  fuzz::run_pieces(body, recipe, [&](const char* bytes, size_t length) {
    return multipart_parser_execute(state.get(), bytes, length);
  });
  std::ignore = close_cgi_upload(&parser);  // what was gathered for the next write
  return "state " + std::to_string(state->state) + "\n" + fuzz::describe(parser.var_list);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const fuzz::UploadFolder folder;
  const int free_descriptor = fuzz::lowest_free_descriptor();
  std::string_view body = fuzz::input(data, size);
  const fuzz::Recipe recipe(fuzz::take_line(body));
  const std::string content_type =
      "multipart/form-data; boundary=" + std::string(fuzz::take_line(body));
  const cgi_settings settings = folder.settings(recipe.mode, UPLOAD_LIMIT);

  fuzz::require(parse(body, recipe, settings, content_type) ==
                    parse(body, fuzz::Recipe({}), settings, content_type),
                "a body in pieces gives what it gives whole");
  fuzz::require(folder.empty(), "no temporary file remains");
  fuzz::require(fuzz::lowest_free_descriptor() == free_descriptor, "no descriptor remains");
  return 0;
}
