#include "support/scripted_bus.h"

#include <dlfcn.h>

namespace {

std::string contents(void* io) {
  size_t length = 0;
  const char* bytes = mib_io_read(static_cast<mib_io*>(io), &length);
  return {bytes, length};
}

// The library's own function, for calls that nobody has scripted.
template <typename Function>
Function* library(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

ormel::test::ScriptedBus*& active = ormel::test::ScriptedBus::active;

}  // namespace

// Being the executable's own, these two come before those of the shared library.
int mib_call(const char* service, const char* method, mib_io* io, int timeout_seconds, int flag) {
  if (!active || !active->serve) {
    return library<decltype(mib_call)>("mib_call")(service, method, io, timeout_seconds, flag);
  }
  active->calls.push_back({service, method, contents(io)});
  std::string reply;
  const int status = active->serve(active->calls.back(), reply);
  if (status != MIB_SUCCESS) return status;
  mib_io_realloc(io, 0);
  mib_io_write(io, reply.data(), reply.size());
  return MIB_SUCCESS;
}

int mib_io_execv(void* context, mib_io* out, mib_io* err, char** argv) {
  if (!active || !active->run) {
    return library<decltype(mib_io_execv)>("mib_io_execv")(context, out, err, argv);
  }
  ormel::test::ProgramCall call;
  for (char** word = argv; *word; ++word) call.argv.emplace_back(*word);
  if (context) call.input = contents(context);
  active->programs.push_back(call);
  std::string output;
  const int status = active->run(call, output);
  mib_io_write(out, output.data(), output.size());
  return status;
}
