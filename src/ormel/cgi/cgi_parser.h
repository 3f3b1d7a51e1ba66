// The working state of one run of the request parser, and what its two machines (form and
// multipart) share: making, growing and joining records. For the files of this folder and their
// tests.
#pragma once

#include <cstddef>
#include <cstring>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <string_view>

#include "ormel/cgi/cgi.h"

// What one request may take, so that an endless body ends: the bytes of its body, and a flat price
// for each record and for each temporary file.
inline constexpr size_t CGI_CONTENT_LIMIT = 64UL << 20;
inline constexpr size_t CGI_RECORD_PRICE = 256;
inline constexpr size_t CGI_UPLOAD_PRICE = 16UL << 10;  // some 4,000 files

// Owner of one record that is not in the list, or no longer; deletes the temporary file of an
// upload.
struct FreeCgiRecord {
  void operator()(cgi_var* var) const noexcept;
};
using CgiRecord = std::unique_ptr<cgi_var, FreeCgiRecord>;

struct CgiNameOrder {
  bool operator()(const cgi_var* left, const cgi_var* right) const noexcept {
    return std::strcmp(left->name, right->name) < 0;
  }
};

struct cgi_parser {
  // `content_type` may be null; only its boundary counts.
  explicit cgi_parser(const cgi_settings& settings, const char* content_type = nullptr);
  cgi_parser(const cgi_parser&) = delete;
  cgi_parser& operator=(const cgi_parser&) = delete;
  ~cgi_parser();

  int fupload = -1;          // the open upload, -1 if none
  char* boundary = nullptr;  // "--" and the boundary of the body; null if it is not a multipart one
  off_t fupload_size = 0;    // bytes of the open upload
  size_t content_length =
      0;  // taken so far, up to CGI_CONTENT_LIMIT; what the client announces is not believed
  cgi_settings settings;
  cgi_var* var_list = nullptr;  // the head; null if it could not be allocated
  cgi_var* current_var = nullptr;

  std::string upload_data;  // of the open upload, gathered for the next write

  // The variables of the list by name. A walk for each of 100,000 variables would cost minutes; an
  // ordered set, unlike a hash table, cannot be slowed down by chosen names.
  std::set<cgi_var*, CgiNameOrder> names;
};

// Counts what the request takes; false once it is too much.
[[nodiscard]] bool charge_cgi_content(cgi_parser* parser, size_t amount);

// Null when there is no memory, or the request has had its share.
[[nodiscard]] CgiRecord new_cgi_record(cgi_parser* parser);

// A copy for a field of a record, which will free it; null when there is no memory.
[[nodiscard]] char* copy_cgi_text(std::string_view text);

// Appends to the NUL-closed `text`, null at first, that holds `length` bytes; false, and no change,
// without memory.
[[nodiscard]] bool append_cgi_text(char*& text, size_t& length, const char* bytes, size_t count);

// Puts a named record into the list under the rules of the var_mode. The record that stays in the
// list and takes the data, null if the new one was dropped.
cgi_var* join_cgi_record(cgi_parser* parser, CgiRecord record);

// Makes the temporary file of an upload and its `value`, the path; false with the status set. Only
// this user can read it, and no program that is started inherits it.
[[nodiscard]] bool open_cgi_upload(cgi_parser* parser, cgi_var* var);
// Both false when the current upload was refused, being too large for the limit or for the disk:
// its file is gone.
[[nodiscard]] bool write_cgi_upload(cgi_parser* parser, std::string_view bytes);
[[nodiscard]] bool close_cgi_upload(cgi_parser* parser);
void delete_cgi_upload(const char* path) noexcept;

// Reads the body in pieces until it ends, `execute` uses less than it was given, or the request has
// had its share.
void read_cgi_body(cgi_parser* parser,
                   const std::function<size_t(const char* bytes, size_t length)>& execute);
