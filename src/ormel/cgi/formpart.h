// The machine for the query string and for "application/x-www-form-urlencoded" bodies.
#pragma once

#include <cstddef>

struct cgi_parser;

enum formpart_state : unsigned char {
  s_name_begin = 1,
  s_name = 2,
  s_name_almost_done = 3,  // an index follows the name: "a[0]=1" is the variable "a"
  s_value_begin = 4,
  s_value = 5,
};

struct formpart_parser {
  formpart_state state = s_name_begin;
};

// Runs one piece of text, cut anywhere. The number of bytes used; less than `length` means that the
// parser stopped. A run ends with a single "&", which closes the last variable.
[[nodiscard]] size_t formpart_parser_execute(cgi_parser* parser, formpart_parser* state,
                                             const char* buffer, size_t length);

// Parses QUERY_STRING, then the body unless it is a multipart one.
void perform_formpart(cgi_parser* parser);
