#include "ormel/cgi/formpart.h"

#include <cstdlib>
#include <cstring>
#include <string_view>
#include <tuple>
#include <utility>

#include "ormel/cgi/cgi_parser.h"

namespace {

using Callback = bool (*)(cgi_parser* parser);  // false stops the parser

bool stop(cgi_parser* /*parser*/) {
  return false;
}

bool skip(cgi_parser* /*parser*/) {
  return true;
}

bool on_name_begin(cgi_parser* parser) {
  parser->current_var = new_cgi_record(parser).release();
  return parser->current_var != nullptr;
}

bool on_name_end(cgi_parser* parser) {
  cgi_var* var = parser->current_var;
  cgi_url_decode(var->name);
  var->name[std::strcspn(var->name, "[")] = '\0';
  var->length = 0;
  return true;
}

// A name with no "=" never comes into the list.
bool on_name_alone(cgi_parser* parser) {
  const CgiRecord dropped(std::exchange(parser->current_var, nullptr));
  return true;
}

bool on_value_end(cgi_parser* parser) {
  CgiRecord record(std::exchange(parser->current_var, nullptr));
  if (record->value) cgi_url_decode(record->value);
  join_cgi_record(parser, std::move(record));
  return true;
}

enum ByteClass { OPENING, CLOSING, EQUALS, AND, OTHER, BYTE_CLASSES };

ByteClass class_of(char byte) {
  switch (byte) {
    case '[': return OPENING;
    case ']': return CLOSING;
    case '=': return EQUALS;
    case '&': return AND;
    default: return OTHER;
  }
}

struct Step {
  Callback callback;
  formpart_state next;
};

// clang-format off
constexpr Step STEPS[][BYTE_CLASSES] = {
    // "["                          "]"                         "="                           "&"                              other
    {{stop, s_name_begin},         {stop, s_name_begin},       {stop, s_name_begin},         {skip, s_name_begin},           {on_name_begin, s_name}},
    {{skip, s_name_almost_done},   {stop, s_name},             {on_name_end, s_value_begin}, {on_name_alone, s_name_begin},  {skip, s_name}},
    {{skip, s_name_almost_done},   {skip, s_name_almost_done}, {on_name_end, s_value_begin}, {on_name_alone, s_name_begin},  {skip, s_name_almost_done}},
    {{skip, s_value},              {skip, s_value},            {skip, s_value},              {on_value_end, s_name_begin},   {skip, s_value}},
    {{skip, s_value},              {skip, s_value},            {skip, s_value},              {on_value_end, s_name_begin},   {skip, s_value}},
};
// clang-format on
static_assert(std::size(STEPS) == s_value);

bool in_run(formpart_state state) {
  return state == s_name || state == s_value;
}

// The bytes of a name or value since the last call.
bool on_run(cgi_parser* parser, formpart_state state, std::string_view run) {
  if (!in_run(state) || run.empty()) return true;
  cgi_var* var = parser->current_var;
  if (append_cgi_text(state == s_name ? var->name : var->value, var->length, run.data(),
                      run.size()))
    return true;
  var->status = MEMORY_ALLOC_ERR;
  return false;
}

// Also after a stop: from every state the "&" leads back to the beginning, and a value keeps what
// it has.
void close_last_variable(cgi_parser* parser, formpart_parser* state) {
  std::ignore = formpart_parser_execute(parser, state, "&", 1);
}

}  // namespace

size_t formpart_parser_execute(cgi_parser* parser, formpart_parser* state, const char* buffer,
                               size_t length) {
  const std::string_view text(buffer, length);
  size_t mark = 0;
  for (size_t at = 0; at < length; ++at) {
    const Step& step = STEPS[state->state - s_name_begin][class_of(text[at])];
    const bool leaves = step.next != state->state;
    if (leaves && !on_run(parser, state->state, text.substr(mark, at - mark))) return at;
    if (!step.callback(parser)) return at;
    if (leaves) mark = at;
    state->state = step.next;
  }
  return on_run(parser, state->state, text.substr(mark)) ? length : length - 1;
}

void perform_formpart(cgi_parser* parser) {
  formpart_parser state;
  if (const char* query = std::getenv("QUERY_STRING")) {
    std::ignore = formpart_parser_execute(parser, &state, query,
                                          std::strlen(query));  // what came before a stop counts
    close_last_variable(parser, &state);
  }
  if (parser->boundary || !std::getenv("CONTENT_LENGTH")) return;
  read_cgi_body(parser, [&](const char* bytes, size_t length) {
    return formpart_parser_execute(parser, &state, bytes, length);
  });
  close_last_variable(parser, &state);
}
