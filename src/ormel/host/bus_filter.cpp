#include "ormel/host/bus_filter.h"

#include <utility>

namespace ormel::system {

namespace {

BusFilter filter;

}  // namespace

void filter_calls(BusFilter chosen) {
  filter = std::move(chosen);
}

int send_call(const char* service, const char* method, mib_io* io, int timeout, int flag) {
  if (!filter) return mib_call(service, method, io, timeout, flag);
  size_t length = 0;
  const char* const request = mib_io_read(io, &length);
  const auto reply =
      filter(service, method, request ? std::string_view(request, length) : std::string_view());
  if (!reply) return mib_call(service, method, io, timeout, flag);
  mib_io_realloc(io, 0);
  return mib_io_write(io, reply->data(), reply->size()) < 0 ? MIB_IO_FAILURE : MIB_SUCCESS;
}

}  // namespace ormel::system
