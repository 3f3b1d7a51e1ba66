// The temporary files of uploads.
#include <cstdlib>
#include <fcntl.h>
#include <unistd.h>

#include "ormel/cgi/cgi_parser.h"

namespace {

// The machine hands on a run at every line end, so that a file of line ends would cost a write for each byte.
constexpr size_t WRITE_SIZE = 4096;

void close_descriptor(cgi_parser* parser) {
  close(parser->fupload);
  parser->fupload = -1;
  parser->upload_data.clear();
}

bool refuse_upload(cgi_parser* parser) {
  close_descriptor(parser);
  unlink(parser->current_var->value);
  parser->current_var->status = OVERSIZE_ERR;
  return false;
}

bool flush_upload(cgi_parser* parser) {
  const std::string& data = parser->upload_data;
  if (data.empty()) return true;
  if (write(parser->fupload, data.data(), data.size()) != static_cast<ssize_t>(data.size()))
    return refuse_upload(parser);
  parser->upload_data.clear();
  return true;
}

}  // namespace

bool open_cgi_upload(cgi_parser* parser, cgi_var* var) {
  const std::string_view tempname = parser->settings.upload_tempname;
  var->value = copy_cgi_text(tempname);
  if (!var->value) {
    var->status = MEMORY_ALLOC_ERR;
    return false;
  }
  var->length = tempname.size();
  parser->fupload = mkostemp(var->value, O_CLOEXEC);
  parser->fupload_size = 0;
  if (parser->fupload >= 0) return true;
  var->status = MAKETEMP_ERR;
  return false;
}

bool write_cgi_upload(cgi_parser* parser, std::string_view bytes) {
  if (parser->fupload < 0) return true;  // refused already, or its part has ended
  const off_t limit = parser->settings.upload_limit;
  const auto count = static_cast<off_t>(bytes.size());
  if (limit != 0 && count > limit - parser->fupload_size) return refuse_upload(parser);
  parser->fupload_size += count;
  parser->upload_data += bytes;
  return parser->upload_data.size() < WRITE_SIZE || flush_upload(parser);
}

bool close_cgi_upload(cgi_parser* parser) {
  if (parser->fupload < 0) return true;
  if (!flush_upload(parser)) return false;
  close_descriptor(parser);
  return true;
}
