#include "libfenro/sqlite_api.h"

#include "libfenro/dynamic.h"

namespace fenro {
namespace {

constexpr const char* LIBRARY = "libsqlite3.so.0";

struct Loaded {
  SqliteApi api{};
  bool ready = false;

  Loaded() {
    const DynamicLibrary library{LIBRARY};
    ready =
        library.bind(api.open_v2, "sqlite3_open_v2") && library.bind(api.close, "sqlite3_close") &&
        library.bind(api.busy_timeout, "sqlite3_busy_timeout") &&
        library.bind(api.exec, "sqlite3_exec") &&
        library.bind(api.prepare_v2, "sqlite3_prepare_v2") &&
        library.bind(api.bind_int64, "sqlite3_bind_int64") &&
        library.bind(api.bind_text, "sqlite3_bind_text") &&
        library.bind(api.step, "sqlite3_step") && library.bind(api.finalize, "sqlite3_finalize") &&
        library.bind(api.column_count, "sqlite3_column_count") &&
        library.bind(api.column_name, "sqlite3_column_name") &&
        library.bind(api.column_text, "sqlite3_column_text") &&
        library.bind(api.column_int64, "sqlite3_column_int64");
  }
};

}  // namespace

const SqliteApi* sqlite() {
  static const Loaded loaded;
  return loaded.ready ? &loaded.api : nullptr;
}

}  // namespace fenro
