#include "daemons/drovik/privilege.h"

#include "base/lines.h"
#include "base/privilege_line.h"

namespace fenro::drovik {

bool may_use_drovik(std::string_view store, std::string_view user) {
  bool may = false;
  while (!store.empty()) {
    std::string_view fields = take_line(store);
    const bool has_fields = fields.find(':') != std::string_view::npos;
    if (has_fields && take_until(fields, ':') == user)
      may = (ormel::rights_in(fields) & ormel::DROVIK_SERVER_TYPE) != 0;
  }
  return may;
}

}  // namespace fenro::drovik
