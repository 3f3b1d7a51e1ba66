// The request parser: turns the environment and the body of a web request into a list of named
// variables, with uploads in temporary files. Plain records and functions that know nothing of the
// rest of the program.
#pragma once

#include <cstddef>
#include <memory>
#include <sys/types.h>

enum cgi_var_status {
  CORRECT_VAR = 0,
  OVERSIZE_ERR = 1,
  MAKETEMP_ERR = 2,
  MEMORY_ALLOC_ERR = 3,
  UNKNOW_VAR = 4
};

// What a repeated name does: the first value stays, the last one wins, or the values chain through
// `list`.
enum cgi_var_mode { SINGLE_VAR_MODE = 0, OVERRIDE_VAR_MODE = 1, MULTIPLE_VAR_MODE = 2 };

// One variable. The list starts with a head, the only record without a name.
struct cgi_var {
  char magic[3];   // "cGI"
  char* name;      // null on the head
  char* value;     // may be null ("a=&"); of an upload, the path of its temporary file
  char* filename;  // as the client gave it, never used as a path; null for a plain field
  size_t
      length;  // bytes gathered of the value, before decoding; of an upload, the length of the path
  cgi_var_status
      status;     // what is not CORRECT_VAR stays in the list, and its value is not to be trusted
  cgi_var* list;  // next value of the same name, in multiple mode
  cgi_var* list_tail;  // last value of the same name; at first the record itself
  cgi_var* next;       // next variable of another name
  cgi_var* next_tail;  // on the head: last variable of the list; at first the record itself
};

struct cgi_settings {
  int fstream;  // descriptor of the body; stays open
  cgi_var_mode var_mode;
  const char* upload_tempname;  // template for mkstemp, copied for each upload
  off_t upload_limit;           // largest upload in bytes, 0 for no limit
  size_t buffer_size;           // bytes asked for by one read
};

inline constexpr cgi_settings cgi_default_settings{
    .fstream = 0,
    .var_mode = OVERRIDE_VAR_MODE,
    .upload_tempname = "/tmp/cgi-XXXXXX",
    .upload_limit = 1048576,
    .buffer_size = 2048,
};

// Parses QUERY_STRING and the body. The head of the list, which the caller frees, or null if it
// cannot be allocated.
[[nodiscard]] cgi_var* cgi_perform(cgi_settings settings);

// Frees the whole chain from `var` on, and deletes the temporary files of its uploads. Null is
// harmless.
void free_cgi_var(cgi_var* var);

// Deletes the files of all uploads that are there, for a process that is about to end in the middle
// of a request. A signal handler may call it: the parser holds all signals back while it makes or
// deletes such a file.
void remove_cgi_uploads() noexcept;

// From the head, the variable of that name; from a found variable, the next value of the same name.
// With a null name, the record after `var`, which walks the list. Null when there is none.
[[nodiscard]] cgi_var* get_cgi_var(cgi_var* var, const char* name);

// A field of the record, which keeps owning it; null, UNKNOW_VAR or false for a null record.
[[nodiscard]] cgi_var_status get_cgi_var_status(cgi_var* var);
[[nodiscard]] char* get_cgi_var_name(cgi_var* var);
[[nodiscard]] char* get_cgi_var_value(cgi_var* var);
[[nodiscard]] char* get_cgi_var_filename(cgi_var* var);
[[nodiscard]] bool is_cgi_var_list(cgi_var* var);

// Prints the list from `var` on to standard error, for debugging: the values are printed too,
// passwords included.
void cgi_var_dump(cgi_var* var, int indent);

// Decodes in place: "+" is a blank, "%" with two hexadecimal digits is that byte, any other "%"
// stays.
void cgi_url_decode(char* text);
// The byte of two hexadecimal digits, -1 if one of them is another character.
[[nodiscard]] int cgi_hex_decode(char high, char low);

struct FreeCgiVars {
  void operator()(cgi_var* vars) const noexcept { free_cgi_var(vars); }
};

// Owner of a parsed request: the variables and the uploaded files are gone when it goes.
class CgiRequest {
 public:
  explicit CgiRequest(const cgi_settings& settings = cgi_default_settings)
      : vars_(cgi_perform(settings)) {}

  [[nodiscard]] cgi_var* vars() const noexcept { return vars_.get(); }
  [[nodiscard]] cgi_var* find(const char* name) const { return get_cgi_var(vars(), name); }
  [[nodiscard]] bool has(const char* name) const { return find(name) != nullptr; }
  // "" when there is no such variable or it has no value, which handlers refuse alike.
  [[nodiscard]] const char* value(const char* name) const {
    const char* text = get_cgi_var_value(find(name));
    return text ? text : "";
  }

 private:
  std::unique_ptr<cgi_var, FreeCgiVars> vars_;
};
