#include "ormel/web/handlers.h"

#include "ormel/web/routes.h"

namespace ormel::cgi {

#define ORMEL_DEFINE(area, name, path)           \
  namespace area {                               \
  int name(JsonValue& response) {                \
    return serve_path("/ormel/" path, response); \
  }                                              \
  }
ORMEL_HANDLERS(ORMEL_DEFINE)

}  // namespace ormel::cgi
