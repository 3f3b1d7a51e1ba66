#include "ormel/base/json.h"

#include <gtest/gtest.h>

#include "ormel/base/handle.h"

namespace ormel {
namespace {

std::string printed(const JsonValue& value) {
  char* text = nullptr;
  size_t length = 0;
  {
    const File stream{open_memstream(&text, &length)};
    value.print(stream.get());
  }
  const CString owner{text};
  return {text, length};
}

std::string as_string(const JsonValue& value) {
  std::string out;
  value.toString(out);
  return out;
}

TEST(JsonValue, PrintsEachKindWithoutWhiteSpace) {
  JsonValue value;
  EXPECT_EQ(printed(value), "null");
  JsonValue& list = value["list"];
  list << true << -5 << 7U << int64_t{-9000000000} << uint64_t{18000000000000000000U} << "text"
       << std::string() << 1.5;
  value["empty"].append(std::make_unique<JsonValue>());
  value["empty"]["a"];
  value["array"].make_array();
  value["object"].make_object();
  EXPECT_EQ(
      printed(value),
      R"({"array":[],"empty":{"a":null},"list":[true,-5,7,-9000000000,18000000000000000000,"text","",1.500000],)"
      R"("object":{}})");
  EXPECT_EQ(as_string(list), R"([true,-5,7,-9000000000,18000000000000000000,"text","",1.5])");
}

TEST(JsonValue, PrintsAHeldDocumentAsJsonButQuotesItInAString) {
  JsonValue value;
  value["d"] = json_pack("{s:s, s:f}", "k", "\xc3\xa9", "r", 0.1234567);
  EXPECT_EQ(printed(value), "{\"d\":{\"k\":\"\\u00E9\",\"r\":0.123457}}");
  EXPECT_EQ(as_string(value), "{\"d\":\"{\"k\":\"\\u00E9\",\"r\":0.123457}\"}");
}

TEST(JsonValue, GivesAFreshMemberForEachUseOfAKey) {
  JsonValue value;
  value["a"]["b"] = 1;
  JsonValue& first = value["a"];
  value["a"]["c"] = 2;
  first = "still good to write to";
  EXPECT_EQ(printed(value), R"({"a":{"c":2}})");
}

TEST(JsonValue, PrintsMembersByTheBytesOfTheirKeys) {
  JsonValue value;
  for (const char* key :
       {"server_port", "\xc3\xa9", "server_p", "a", "server_address", "ab", "Z", ""})
    value[key];
  value["server_p"] = 1;
  EXPECT_EQ(printed(value),
            "{\"\":null,\"Z\":null,\"a\":null,\"ab\":null,\"server_address\":null,"
            "\"server_p\":1,\"server_port\":null,\"\xc3\xa9\":null}");
  for (const char* key : {"server_p", "Z", "", "\xc3\xa9", "none"}) value.erase(key);
  value["Z"] = 2;
  EXPECT_EQ(printed(value),
            R"({"Z":2,"a":null,"ab":null,"server_address":null,"server_port":null})");
}

TEST(JsonValue, LeavesADocumentThatIsOverwrittenToItsAssigner) {
  const Json kept{json_object()};
  JsonValue value(kept.get());
  value = json_array();
  EXPECT_EQ(kept->refcount, 1U);
  EXPECT_EQ(printed(value), "[]");
}

TEST(JsonValue, PrintsRowsOfDifferentKeysEachInItsOwnOrder) {
  JsonValue list;
  for (const std::vector<const char*>& keys :
       {std::vector{"b", "a"}, {"b", "a"}, {"b"}, {"a", "c", "b"}, {"b", "a", "b"}, {"b", "a"}}) {
    auto row = std::make_unique<JsonValue>();
    for (int number = 0; const char* key : keys) (*row)[key] = number++;
    list.append(std::move(row));
  }
  EXPECT_EQ(printed(list), R"([{"a":1,"b":0},{"a":1,"b":0},{"b":0},{"a":0,"b":2,"c":1},)"
                           R"({"a":1,"b":2},{"a":1,"b":0}])");
}

TEST(JsonValue, SettlesIntoTheTextThatBothPrintingsHave) {
  JsonValue row;
  row["s"] = "a\"b";
  row["n"] = 7;
  row.settle();
  EXPECT_EQ(printed(row), R"({"n":7,"s":"a\"b"})");
  EXPECT_EQ(as_string(row), printed(row));

  JsonValue doubles;
  doubles["d"] = 1.5;
  doubles.settle();
  EXPECT_EQ(printed(doubles), R"({"d":1.500000})");
  EXPECT_EQ(as_string(doubles), R"({"d":1.5})");

  row = 1;
  EXPECT_EQ(printed(row), "1");
}

TEST(EscapeJson, EscapesQuotesBackslashesAndControlBytesAlone) {
  EXPECT_EQ(escape_json("tab\there \"q\" \\ / \x01\x1f\b\f\n\r \x7f\xc3\xa9\xff"),
            "tab\\there \\\"q\\\" \\\\ / \\u0001\\u001f\\b\\f\\n\\r \x7f\xc3\xa9\xff");
}

}  // namespace
}  // namespace ormel
