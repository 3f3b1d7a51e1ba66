// The machine for "multipart/form-data" bodies.
#pragma once

#include <cstddef>
#include <memory>

struct cgi_parser;

enum multipart_state : unsigned char {
  s_start = 2,
  s_boundary = 3,
  s_header_field_start = 4,
  s_header_field = 5,
  s_headers_end = 6,
  s_header_value_start = 7,
  s_header_value = 8,
  s_header_value_end = 9,
  s_part_data_start = 10,
  s_part_data = 11,
  s_part_data_after_cr = 12,
  s_part_data_in_boundary = 13,
  s_after_boundary = 14,
  s_after_boundary_cr = 15,
  s_closing = 16,
  s_end = 17,
};

inline constexpr size_t MULTIPART_HEADER_SIZE = 2048;  // the closing NUL included

struct multipart_parser {
  void* data;    // the cgi_parser
  size_t index;  // matched bytes of the boundary
  size_t boundary_length;
  size_t multipart_length;  // bytes in multipart_data
  unsigned char state;
  char* lookbehind;  // CR, LF and boundary bytes that may turn out to be data
  char multipart_data[MULTIPART_HEADER_SIZE];
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored \
    "-Wpedantic"              // one allocation holds both texts; standard C++ has no such member
  char multipart_boundary[];  // the boundary text, and behind it the room of lookbehind
#pragma GCC diagnostic pop
};

struct FreeMultipartParser {
  void operator()(multipart_parser* parser) const noexcept;
};
using MultipartParser = std::unique_ptr<multipart_parser, FreeMultipartParser>;

// A parser for bodies with the boundary `parser->boundary`; null without a boundary or without
// memory.
[[nodiscard]] MultipartParser new_multipart_parser(cgi_parser* parser);

// Runs one piece of a body, cut anywhere. The number of bytes used; less than `length` means that
// the parser stopped.
[[nodiscard]] size_t multipart_parser_execute(multipart_parser* parser, const char* buffer,
                                              size_t length);

// Parses the body if it is a multipart one.
void perform_multipart(cgi_parser* parser);
