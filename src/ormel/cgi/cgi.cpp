#include "ormel/cgi/cgi.h"

// Never touch a pointer that is not a cgi_var, not even in release builds.
#undef NDEBUG
#include <cassert>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "ormel/cgi/cgi_parser.h"
#include "ormel/cgi/formpart.h"
#include "ormel/cgi/multipart.h"

namespace {

void check_magic(const cgi_var* var) {
  assert(memcmp(var, "cGI", 3) == 0);
}

bool has_name(const cgi_var* var, const char* name) {
  return var->name && std::strcmp(var->name, name) == 0;
}

int hex_digit(char digit) {
  if (digit >= '0' && digit <= '9') return digit - '0';
  if (digit >= 'A' && digit <= 'F') return digit - 'A' + 10;
  if (digit >= 'a' && digit <= 'f') return digit - 'a' + 10;
  return -1;
}

const char* or_null(const char* text) {
  return text ? text : "(null)";
}

void dump_record(const cgi_var* var, int indent) {
  std::fprintf(stderr, "%*s%s = %s, file %s, status %d\n", indent, "", or_null(var->name),
               or_null(var->value), or_null(var->filename), static_cast<int>(var->status));
}

}  // namespace

cgi_var* cgi_perform(cgi_settings settings) {
  cgi_parser parser(settings, std::getenv("CONTENT_TYPE"));
  if (!parser.var_list) return nullptr;
  perform_formpart(&parser);
  perform_multipart(&parser);
  return std::exchange(parser.var_list, nullptr);
}

void free_cgi_var(cgi_var* var) {
  while (var) {
    check_magic(var);
    cgi_var* next = var->next;
    while (var) var = std::exchange(CgiRecord(var)->list, nullptr);
    var = next;
  }
}

cgi_var* get_cgi_var(cgi_var* var, const char* name) {
  if (!var) return nullptr;
  check_magic(var);
  if (!name) return var->next;
  if (has_name(var, name)) return var->list;
  while (var && !has_name(var, name)) var = var->next;
  return var;
}

cgi_var_status get_cgi_var_status(cgi_var* var) {
  if (!var) return UNKNOW_VAR;
  check_magic(var);
  return var->status;
}

char* get_cgi_var_name(cgi_var* var) {
  if (!var) return nullptr;
  check_magic(var);
  return var->name;
}

char* get_cgi_var_value(cgi_var* var) {
  if (!var) return nullptr;
  check_magic(var);
  return var->value;
}

char* get_cgi_var_filename(cgi_var* var) {
  if (!var) return nullptr;
  check_magic(var);
  return var->filename;
}

bool is_cgi_var_list(cgi_var* var) {
  if (!var) return false;
  check_magic(var);
  return var->list != nullptr;
}

void cgi_var_dump(cgi_var* var, int indent) {
  for (; var; var = var->next) {
    check_magic(var);
    dump_record(var, indent);
    for (const cgi_var* more = var->list; more; more = more->list) dump_record(more, indent + 2);
  }
}

int cgi_hex_decode(char high, char low) {
  const int upper = hex_digit(high);
  const int lower = hex_digit(low);
  return upper < 0 || lower < 0 ? -1 : upper * 16 + lower;
}

void cgi_url_decode(char* text) {
  char* out = text;
  for (const char* in = text; *in; ++in) {
    // The closing NUL is no digit, so nothing behind the text is looked at.
    const int byte = *in == '%' && in[1] ? cgi_hex_decode(in[1], in[2]) : -1;
    *out++ = byte >= 0 ? static_cast<char>(byte) : *in == '+' ? ' ' : *in;
    if (byte >= 0) in += 2;
  }
  *out = '\0';
}
