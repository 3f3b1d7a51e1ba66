// The temporary files of uploads.
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <set>
#include <string>
#include <unistd.h>

#include "ormel/cgi/cgi_parser.h"

namespace {

// The machine hands on a run at every line end, so that a file of line ends would cost a write for
// each byte.
constexpr size_t WRITE_SIZE = 4096;

// The paths of the files that are there.
std::set<std::string, std::less<>> files;

// No signal is handled while this lives: a handler must not find a file that is not in the set, nor
// half a set.
class SignalsHeld {
 public:
  SignalsHeld() {
    sigset_t all;
    sigfillset(&all);
    sigprocmask(SIG_BLOCK, &all, &before_);
  }
  SignalsHeld(const SignalsHeld&) = delete;
  SignalsHeld& operator=(const SignalsHeld&) = delete;
  ~SignalsHeld() { sigprocmask(SIG_SETMASK, &before_, nullptr); }

 private:
  sigset_t before_{};
};

void close_descriptor(cgi_parser* parser) {
  close(parser->fupload);
  parser->fupload = -1;
  parser->upload_data.clear();
}

bool refuse_upload(cgi_parser* parser) {
  close_descriptor(parser);
  delete_cgi_upload(parser->current_var->value);
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
  const SignalsHeld held;
  parser->fupload =
      charge_cgi_content(parser, CGI_UPLOAD_PRICE) ? mkostemp(var->value, O_CLOEXEC) : -1;
  parser->fupload_size = 0;
  if (parser->fupload >= 0) {
    files.insert(var->value);
    return true;
  }
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

void delete_cgi_upload(const char* path) noexcept {
  const SignalsHeld held;
  unlink(path);
  if (const auto found = files.find(std::string_view(path)); found != files.end())
    files.erase(found);
}

void remove_cgi_uploads() noexcept {
  for (const std::string& path : files) unlink(path.c_str());
}
