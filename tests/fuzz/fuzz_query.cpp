// The form machine on a text cut anywhere. Input: the recipe line, then the text.
#include <cstring>

#include "fuzz/cgi_fuzz.h"
#include "ormel/cgi/cgi_parser.h"
#include "ormel/cgi/formpart.h"

namespace {

// What comes of the text in these pieces, and how much of it was used.
std::string parse(std::string_view text, const fuzz::Recipe& recipe, cgi_var_mode mode) {
  cgi_settings settings = cgi_default_settings;
  settings.var_mode = mode;
  cgi_parser parser(settings);
  formpart_parser state;
  const auto execute = [&](const char* bytes, size_t length) {
    return formpart_parser_execute(&parser, &state, bytes, length);
  };
  const size_t used = fuzz::run_pieces(text, recipe, execute);
  execute("&", 1);
  fuzz::require(state.state == s_name_begin && !parser.current_var, "the last variable is closed");
  return std::to_string(used) + " used\n" + fuzz::describe(parser.var_list);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view text = fuzz::input(data, size);
  const fuzz::Recipe recipe(fuzz::take_line(text));

  fuzz::require(parse(text, recipe, recipe.mode) == parse(text, fuzz::Recipe({}), recipe.mode),
                "a text in pieces gives what it gives whole");
  std::string decoded(text);
  cgi_url_decode(decoded.data());
  fuzz::require(std::strlen(decoded.c_str()) <= std::strlen(std::string(text).c_str()),
                "decoding never lengthens a text");
  return 0;
}
