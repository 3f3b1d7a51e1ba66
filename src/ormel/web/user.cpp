// The users of the appliance, to choose from.
#include <memory>

#include <fenro/auth.h>

#include "ormel/base/handle.h"
#include "ormel/base/text.h"
#include "ormel/host/bus.h"
#include "ormel/web/routes.h"

namespace ormel::cgi::user {

namespace {

struct Page {
  int lower;
  int upper;
  const char* filter;
};

// What the platform allocates for a list: names in rows of a fixed width.
template <size_t Width>
class Names {
 public:
  using Row = char[Width];

  template <typename List, typename... More>
  int fill(List list, const Page& page, More... more) {
    Row* rows = nullptr;
    int total = 0;
    count_ = list(&rows, page.lower, page.upper, page.filter, &total, more...);
    rows_.reset(rows);
    return total;
  }
  void append_to(JsonValue& out) const {
    for (int i = 0; rows_ && i < count_; ++i) {
      out << system::valid_utf8(field_text(rows_.get()[i]));
    }
  }

 private:
  std::unique_ptr<Row, FreeWith<std::free>> rows_;
  int count_ = 0;  // negative: the list failed
};

template <size_t Width, typename List, typename... More>
int list_users(List list, const Page& page, JsonValue& reply, More... more) {
  Names<Width> names;
  reply["total"] = names.fill(list, page, more...);
  names.append_to(reply["data"].make_array());
  return NO_ERROR;
}

int list_local(const Page& page, JsonValue& reply) {
  return list_users<33>(Get_Local_User_List_V2, page, reply);
}

int list_remote(const Page& page, JsonValue& reply) {
  if (Is_LDAP_Enable()) return list_users<33>(Get_LDAP_User_List_V2, page, reply);
  return list_users<209>(Get_Expand_Domain_User_List_V2, page, reply, 1, 0, 0);
}

struct Source {
  std::string_view type;
  int (*list)(const Page& page, JsonValue& reply);
};

constexpr Source SOURCES[] = {{"", list_local},
                              {"1", list_local},
                              {"local", list_local},
                              {"2", list_remote},
                              {"remote", list_remote}};

int list_source(const Request& request, JsonValue& reply) {
  const Page page{request.number("lower", 0), request.number("upper", 50),
                  get_cgi_var_value(request.find("filter"))};
  for (const Source& source : SOURCES) {
    if (source.type == request.value("type")) return source.list(page, reply);
  }
  return ERR_WRONG_TYPE;
}

constexpr Route ROWS[] = {
    {"/ormel/user/query", ADMINISTRATOR, READS, json<list_source>},
};

}  // namespace

const Routes USERS{ROWS};

}  // namespace ormel::cgi::user
