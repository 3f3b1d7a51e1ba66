#include "ormel/cgi/cgi_parser.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <cstdlib>
#include <tuple>
#include <unistd.h>
#include <utility>

namespace {

constexpr std::string_view BOUNDARY_WORD = "boundary=";
constexpr size_t READ_SIZE_LIMIT =
    64UL << 10;  // pieces live on the stack, whatever the settings ask for
constexpr size_t TEXT_MIN_CAPACITY = 16;

// The boundary of a Content-Type: within double quotes, or up to the next parameter.
std::string_view boundary_text(std::string_view content_type) {
  const size_t word = content_type.find(BOUNDARY_WORD);
  if (word == std::string_view::npos) return {};
  const std::string_view text = content_type.substr(word + BOUNDARY_WORD.size());
  return text.starts_with('"') ? text.substr(1, text.find('"', 1) - 1)
                               : text.substr(0, text.find(';'));
}

// Follows from the length alone, so that growing by single bytes stays linear without a field for
// it.
size_t capacity_for(size_t length) {
  return std::max(std::bit_ceil(length + 1), TEXT_MIN_CAPACITY);
}

bool has_temporary_file(const cgi_var* var) {
  return var->filename && var->value && var->status != OVERSIZE_ERR && var->status != MAKETEMP_ERR;
}

ssize_t read_piece(int fd, char* buffer, size_t size) {
  ssize_t count = -1;
  do {
    count = read(fd, buffer, size);
  } while (count < 0 && errno == EINTR);
  return count;
}

}  // namespace

// The records are plain C memory, because their strings grow in place; nothing outside these
// functions allocates. NOLINTBEGIN(cppcoreguidelines-no-malloc, cppcoreguidelines-owning-memory)

void FreeCgiRecord::operator()(cgi_var* var) const noexcept {
  if (has_temporary_file(var)) delete_cgi_upload(var->value);
  std::free(var->name);
  std::free(var->value);
  std::free(var->filename);
  std::free(var);
}

CgiRecord new_cgi_record(cgi_parser* parser) {
  if (!charge_cgi_content(parser, CGI_RECORD_PRICE)) return nullptr;
  CgiRecord record(static_cast<cgi_var*>(std::calloc(1, sizeof(cgi_var))));
  if (!record) return nullptr;
  std::memcpy(record->magic, "cGI", sizeof record->magic);
  record->list_tail = record->next_tail = record.get();
  return record;
}

char* copy_cgi_text(std::string_view text) {
  auto* copy = static_cast<char*>(std::malloc(text.size() + 1));
  if (!copy) return nullptr;
  copy[text.copy(copy, text.size())] = '\0';
  return copy;
}

bool append_cgi_text(char*& text, size_t& length, const char* bytes, size_t count) {
  const size_t capacity = capacity_for(length + count);
  if (!text || capacity != capacity_for(length)) {
    void* grown = std::realloc(text, capacity);
    if (!grown) return false;
    text = static_cast<char*>(grown);
  }
  std::memcpy(text + length, bytes, count);
  length += count;
  text[length] = '\0';
  return true;
}

cgi_parser::~cgi_parser() {
  std::ignore = close_cgi_upload(this);
  std::free(boundary);
  free_cgi_var(var_list);
}

// NOLINTEND(cppcoreguidelines-no-malloc, cppcoreguidelines-owning-memory)

cgi_parser::cgi_parser(const cgi_settings& with, const char* content_type) : settings(with) {
  if (content_type && std::strstr(content_type, BOUNDARY_WORD.data())) {
    size_t length = 0;
    const std::string_view text = boundary_text(content_type);
    if (!append_cgi_text(boundary, length, "--", 2) ||
        !append_cgi_text(boundary, length, text.data(), text.size()))
      return;
  }
  var_list = new_cgi_record(this).release();
}

bool charge_cgi_content(cgi_parser* parser, size_t amount) {
  if (amount > CGI_CONTENT_LIMIT - parser->content_length) return false;
  parser->content_length += amount;
  return true;
}

cgi_var* join_cgi_record(cgi_parser* parser, CgiRecord record) {
  const auto [place, is_new] = parser->names.insert(record.get());
  cgi_var* known = *place;
  if (is_new) {
    parser->var_list->next_tail = parser->var_list->next_tail->next = record.release();
    return known;
  }
  switch (parser->settings.var_mode) {
    case OVERRIDE_VAR_MODE:  // what is replaced goes with `record`, an uploaded file included
      std::swap(known->name, record->name);
      std::swap(known->value, record->value);
      std::swap(known->filename, record->filename);
      std::swap(known->length, record->length);
      std::swap(known->status, record->status);
      return known;
    case MULTIPLE_VAR_MODE:
      known->list_tail = known->list_tail->list = record.release();
      return known->list_tail;
    case SINGLE_VAR_MODE: break;
  }
  return nullptr;
}

void read_cgi_body(cgi_parser* parser, const std::function<size_t(const char*, size_t)>& execute) {
  std::array<char, READ_SIZE_LIMIT> buffer;
  const size_t size = std::clamp<size_t>(parser->settings.buffer_size, 1, buffer.size());
  for (;;) {
    const ssize_t count = read_piece(parser->settings.fstream, buffer.data(), size);
    if (count < 1) return;
    const auto length = static_cast<size_t>(count);
    // An upload without a limit was asked for: the disk is what bounds it.
    const bool unlimited = parser->fupload >= 0 && parser->settings.upload_limit == 0;
    if (!unlimited && !charge_cgi_content(parser, length)) {
      if (parser->current_var) parser->current_var->status = MEMORY_ALLOC_ERR;
      return;
    }
    if (execute(buffer.data(), length) < length) return;
  }
}
