#include "ormel/cgi/multipart.h"

#include <cstdlib>
#include <cstring>
#include <optional>
#include <string_view>
#include <tuple>
#include <utility>

#include "ormel/cgi/cgi_parser.h"

namespace {

constexpr char CR = '\r';
constexpr char LF = '\n';
constexpr size_t BOUNDARY_ROOM = 13;  // two ends of text, CR and LF, and some more

// The text of a quoted parameter, given its opening such as `name="`. Quoted texts are stepped
// over, so that neither `filename="` nor a file of the name `; name=` passes for a name.
std::optional<std::string_view> parameter(std::string_view header, std::string_view opening) {
  for (size_t at = 0; at < header.size(); ++at) {
    const bool begins = at == 0 || std::strchr("; \t,", header[at - 1]);
    if (begins && header.substr(at).starts_with(opening)) {
      header.remove_prefix(at + opening.size());
      const size_t end = header.find('"');
      return end == std::string_view::npos ? std::nullopt : std::optional(header.substr(0, end));
    }
    if (header[at] == '"') at = header.find('"', at + 1);
    if (at == std::string_view::npos) break;
  }
  return std::nullopt;
}

// Data that follows belongs to no record until a header names one.
bool on_part_data_end(cgi_parser* parser) {
  const bool whole = close_cgi_upload(parser);
  parser->current_var = nullptr;
  return whole;
}

bool on_header_value(cgi_parser* parser, std::string_view text) {
  const auto name = parameter(text, "name=\"");
  if (!name) return true;  // not the line that names the part
  if (!on_part_data_end(parser)) return false;

  CgiRecord record = new_cgi_record(parser);
  if (!record || !(record->name = copy_cgi_text(*name))) return false;
  const auto filename = parameter(text, "filename=\"");
  if (filename && !filename->empty()) {
    record->filename = copy_cgi_text(*filename);
    if (!record->filename || !open_cgi_upload(parser, record.get())) return false;
  }
  parser->current_var = join_cgi_record(parser, std::move(record));
  return true;
}

bool on_part_data(cgi_parser* parser, std::string_view bytes) {
  cgi_var* var = parser->current_var;
  if (!var || bytes.empty()) return true;  // a part without a name, or a repeat that does not count
  if (var->filename) return write_cgi_upload(parser, bytes);
  if (append_cgi_text(var->value, var->length, bytes.data(), bytes.size())) return true;
  var->status = MEMORY_ALLOC_ERR;
  return false;
}

// One piece of the body, and in it the byte under examination.
struct Piece {
  std::string_view text;
  size_t at = 0;
  size_t mark = 0;  // where the data begins that was not passed on yet

  [[nodiscard]] char byte() const { return text[at]; }
  [[nodiscard]] std::string_view data() const { return text.substr(mark, at - mark); }
};

enum class Outcome {
  NEXT,
  AGAIN,
  STOP
};  // go on with the next byte, or with this one in the new state

using Step = Outcome (*)(multipart_parser& parser, Piece& piece);

cgi_parser* owner_of(const multipart_parser& parser) {
  return static_cast<cgi_parser*>(parser.data);
}

Outcome enter(multipart_parser& parser, multipart_state state, Outcome outcome = Outcome::NEXT) {
  parser.state = state;
  return outcome;
}

Outcome store_header(multipart_parser& parser, char byte) {
  if (parser.multipart_length >= MULTIPART_HEADER_SIZE) return Outcome::STOP;
  parser.multipart_data[parser.multipart_length++] = byte;
  return Outcome::NEXT;
}

Outcome close_header(multipart_parser& parser) {
  const Outcome closed = store_header(parser, '\0');
  parser.multipart_length = 0;
  return closed;
}

// The held bytes were data; the byte that decided it is looked at again, as it may begin the true
// boundary.
Outcome release_held(multipart_parser& parser, Piece& piece, size_t count) {
  if (!on_part_data(owner_of(parser), {parser.lookbehind, count})) return Outcome::STOP;
  piece.mark = piece.at;
  return enter(parser, s_part_data, Outcome::AGAIN);
}

Outcome start(multipart_parser& parser, Piece& /*piece*/) {
  parser.index = 0;
  return enter(parser, s_boundary, Outcome::AGAIN);
}

Outcome boundary(multipart_parser& parser, Piece& piece) {
  const size_t length = parser.boundary_length;
  const size_t index = parser.index++;
  const char expected = index < length    ? parser.multipart_boundary[index]
                        : index == length ? CR
                                          : LF;
  if (piece.byte() != expected) return Outcome::STOP;
  if (index <= length) return Outcome::NEXT;
  parser.index = 0;
  return enter(parser, s_header_field_start);
}

Outcome header_field_start(multipart_parser& parser, Piece& piece) {
  piece.mark = piece.at;
  return enter(parser, s_header_field, Outcome::AGAIN);
}

Outcome header_field(multipart_parser& parser, Piece& piece) {
  const char byte = piece.byte();
  if (byte == CR) return enter(parser, s_headers_end);
  if (byte == ':') return enter(parser, s_header_value_start, close_header(parser));
  const bool letter = (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z');
  return letter || byte == '-' ? store_header(parser, byte) : Outcome::STOP;
}

Outcome headers_end(multipart_parser& parser, Piece& piece) {
  if (piece.byte() != LF) return Outcome::STOP;
  parser.multipart_length = 0;
  return enter(parser, s_part_data_start);
}

Outcome header_value_start(multipart_parser& parser, Piece& piece) {
  return piece.byte() == ' ' ? Outcome::NEXT : enter(parser, s_header_value, Outcome::AGAIN);
}

Outcome header_value(multipart_parser& parser, Piece& piece) {
  return piece.byte() == CR ? enter(parser, s_header_value_end)
                            : store_header(parser, piece.byte());
}

Outcome header_value_end(multipart_parser& parser, Piece& piece) {
  if (piece.byte() != LF || close_header(parser) == Outcome::STOP) return Outcome::STOP;
  if (!on_header_value(owner_of(parser), parser.multipart_data)) return Outcome::STOP;
  return enter(parser, s_header_field_start);
}

Outcome part_data_start(multipart_parser& parser, Piece& piece) {
  piece.mark = piece.at;
  return enter(parser, s_part_data, Outcome::AGAIN);
}

Outcome part_data(multipart_parser& parser, Piece& piece) {
  piece.at = piece.text.find(CR, piece.at);
  if (piece.at == std::string_view::npos) {  // the rest is passed on at the end of the piece
    piece.at = piece.text.size() - 1;
    return Outcome::NEXT;
  }
  if (!on_part_data(owner_of(parser), piece.data())) return Outcome::STOP;
  parser.lookbehind[0] = CR;
  return enter(parser, s_part_data_after_cr);
}

Outcome part_data_after_cr(multipart_parser& parser, Piece& piece) {
  if (piece.byte() != LF) return release_held(parser, piece, 1);
  parser.lookbehind[1] = LF;
  parser.index = 0;
  return enter(parser, s_part_data_in_boundary);
}

Outcome part_data_in_boundary(multipart_parser& parser, Piece& piece) {
  if (piece.byte() != parser.multipart_boundary[parser.index])
    return release_held(parser, piece, parser.index + 2);
  parser.lookbehind[2 + parser.index++] = piece.byte();
  if (parser.index < parser.boundary_length) return Outcome::NEXT;
  return on_part_data_end(owner_of(parser)) ? enter(parser, s_after_boundary) : Outcome::STOP;
}

Outcome after_boundary(multipart_parser& parser, Piece& piece) {
  if (piece.byte() == '-') return enter(parser, s_closing);
  return piece.byte() == CR ? enter(parser, s_after_boundary_cr) : Outcome::STOP;
}

Outcome after_boundary_cr(multipart_parser& parser, Piece& piece) {
  return piece.byte() == LF ? enter(parser, s_header_field_start) : Outcome::STOP;
}

Outcome closing(multipart_parser& parser, Piece& piece) {
  return piece.byte() == '-' ? enter(parser, s_end) : Outcome::STOP;
}

Outcome end(multipart_parser& /*parser*/, Piece& piece) {
  piece.at = piece.text.size() - 1;
  return Outcome::NEXT;
}

// In the order of multipart_state, from s_start on.
constexpr Step STEPS[] = {
    start,
    boundary,
    header_field_start,
    header_field,
    headers_end,
    header_value_start,
    header_value,
    header_value_end,
    part_data_start,
    part_data,
    part_data_after_cr,
    part_data_in_boundary,
    after_boundary,
    after_boundary_cr,
    closing,
    end,
};
static_assert(std::size(STEPS) == s_end - s_start + 1);

}  // namespace

// NOLINTBEGIN(cppcoreguidelines-no-malloc, cppcoreguidelines-owning-memory)

void FreeMultipartParser::operator()(multipart_parser* parser) const noexcept {
  std::free(parser);
}

MultipartParser new_multipart_parser(cgi_parser* parser) {
  if (!parser->boundary || !*parser->boundary) return nullptr;
  const std::string_view text = parser->boundary;
  const size_t size = sizeof(multipart_parser) + 2 * text.size() + BOUNDARY_ROOM;
  MultipartParser made(static_cast<multipart_parser*>(std::calloc(1, size)));
  if (!made) return nullptr;
  made->data = parser;
  made->state = s_start;
  made->boundary_length = text.size();
  text.copy(made->multipart_boundary, text.size());
  made->lookbehind = made->multipart_boundary + text.size() + 1;
  return made;
}

// NOLINTEND(cppcoreguidelines-no-malloc, cppcoreguidelines-owning-memory)

size_t multipart_parser_execute(multipart_parser* parser, const char* buffer, size_t length) {
  Piece piece{.text = {buffer, length}};
  while (piece.at < length) {
    const Outcome outcome = STEPS[parser->state - s_start](*parser, piece);
    if (outcome == Outcome::STOP) return piece.at;
    if (outcome == Outcome::NEXT) ++piece.at;
  }
  if (parser->state != s_part_data || on_part_data(owner_of(*parser), piece.data())) return length;
  return length - 1;
}

void perform_multipart(cgi_parser* parser) {
  if (!std::getenv("CONTENT_LENGTH")) return;
  const MultipartParser state = new_multipart_parser(parser);
  if (!state) return;
  read_cgi_body(parser, [&](const char* bytes, size_t length) {
    return multipart_parser_execute(state.get(), bytes, length);
  });
  std::ignore = close_cgi_upload(parser);  // of a body that broke off; a failure is in the record
}
