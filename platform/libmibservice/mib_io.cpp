// The growing buffer. The callers are C functions: no exception may escape, so out-of-memory
// becomes a result.
#include "libmibservice/mib_io.h"

#include <climits>
#include <cstdarg>
#include <cstdio>
#include <memory>
#include <new>
#include <stdexcept>

namespace {

// Applies a change to a buffer. Returns false when memory ran out, and leaves the buffer
// unchanged.
template <typename Change>
bool succeeds(Change change) noexcept {
  try {
    change();
    return true;
  } catch (const std::bad_alloc&) {
    return false;
  } catch (const std::length_error&) {
    return false;
  }
}

int format_into(std::string& bytes, const char* format, va_list arguments) {
  va_list again;
  va_copy(again, arguments);
  const int length = std::vsnprintf(nullptr, 0, format, arguments);
  const std::size_t start = bytes.size();
  const bool room =
      length >= 0 && succeeds([&] { bytes.resize(start + static_cast<std::size_t>(length)); });
  // The byte after a string's end is its own NUL, which is what vsnprintf writes there.
  if (room)
    std::vsnprintf(bytes.data() + start, static_cast<std::size_t>(length) + 1, format, again);
  va_end(again);
  return room ? length : -1;
}

}  // namespace

mib_io* mib_io_create(void) {
  std::unique_ptr<mib_io> io;
  return succeeds([&] { io = std::make_unique<mib_io>(); }) ? io.release() : nullptr;
}

void mib_io_free(mib_io* io) {
  std::unique_ptr<mib_io>{io}.reset();
}

int mib_io_write(mib_io* io, const char* bytes, size_t length) {
  if (!io || !bytes || length > INT_MAX) return 0;
  return succeeds([&] { io->bytes.append(bytes, length); }) ? static_cast<int>(length) : 0;
}

int mib_io_printf(mib_io* io, const char* format, ...) {
  if (!io || !format) return -1;
  va_list arguments;
  va_start(arguments, format);
  const int length = format_into(io->bytes, format, arguments);
  va_end(arguments);
  return length;
}

const char* mib_io_read(mib_io* io, size_t* length) {
  if (length) *length = io ? io->bytes.size() : 0;
  return io ? io->bytes.c_str() : "";
}

int mib_io_realloc(mib_io* io, size_t size) {
  if (!io) return -1;
  if (size == 0) io->bytes.clear();
  return succeeds([&] { io->bytes.reserve(size); }) ? 0 : -1;
}
