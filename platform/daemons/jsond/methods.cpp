#include "daemons/jsond/methods.h"

namespace fenro::jsond {
namespace {

constexpr int FAILED = -1;
constexpr std::size_t MESSAGE_MAX =
    2 * DOCUMENT_MAX;  // a request's document may contain blanks and escapes

std::string path_of(const json_t* request) {
  const char* path = text_or_null(request, "path");
  return path ? path : "";
}

// {"path":PATH}: the document.
std::string read_json(const Documents& documents, const json_t* request, Json& data) {
  return documents.read(path_of(request), data);
}

// {"path":PATH,"data":DOCUMENT}
std::string write_json(const Documents& documents, const json_t* request, Json&) {
  return documents.write(path_of(request), json_object_get(request, "data"));
}

constexpr Method METHODS[] = {{"read_json", read_json}, {"write_json", write_json}};

}  // namespace

std::span<const Method> methods() {
  return METHODS;
}

std::string answer(const Documents& documents, const Method& method, std::string_view body) {
  Json data = json_text("");
  const Json request = parse_request(body, MESSAGE_MAX);
  const std::string failure =
      request ? method.run(documents, request.get(), data) : "the request is not a JSON object";
  return failure.empty() ? reply_text(0, std::move(data)) : reply_text(FAILED, json_text(failure));
}

}  // namespace fenro::jsond
