#include <gtest/gtest.h>

#include "gate/fastcgi.h"
#include "gate/rules.h"

namespace fenro::test {
namespace {

using gate::may_be_same;
using gate::Request;

std::string record(int type, const std::string& content, int padding = 0, int id = 7) {
  const auto byte = [](auto number) { return static_cast<char>(number); };
  const std::string head{
      1, byte(type), 0, byte(id), byte(content.size() >> 8U), byte(content.size()), byte(padding),
      0};
  return head + content + std::string(static_cast<std::size_t>(padding), 'p');
}

std::string pair(const std::string& name, const std::string& value) {
  const auto size = value.size();
  std::string length(1, static_cast<char>(size));
  if (size > 127) length = {'\x80', 0, static_cast<char>(size >> 8U), static_cast<char>(size)};
  return std::string(1, static_cast<char>(name.size())) + length + name + value;
}

const std::string BEGIN = record(1, std::string{"\0\1\0\0\0\0\0\0", 8});

std::string request(const std::string& variables, const std::string& body) {
  const std::string pieces =
      body.empty() ? "" : record(5, body.substr(0, 3), 5) + record(5, body.substr(3));
  return BEGIN + (variables.empty() ? "" : record(4, variables, 2)) + record(4, "") + pieces +
         record(5, "");
}

Request parsed(const std::string& variables, const std::string& body) {
  Request made;
  EXPECT_EQ(made.feed(request(variables, body)), Request::State::Whole);
  return made;
}

TEST(GateRequest, IsTheSameHoweverItIsCut) {
  const std::string long_value(300, 'v');
  const std::string variables =
      pair("SCRIPT_URL", "/x") + pair("CONTENT_LENGTH", "9") + pair("LONG", long_value);
  const std::string text = request(variables, "type=PPTP");
  for (std::size_t size = 1; size <= text.size(); ++size) {
    Request made;
    for (std::size_t at = 0; at < text.size(); at += size) {
      EXPECT_LT(made.state(), Request::State::Whole);
      made.feed(std::string_view{text}.substr(at, size));
    }
    ASSERT_EQ(made.state(), Request::State::Whole) << size;
    EXPECT_EQ(made.variable("SCRIPT_URL"), "/x");
    EXPECT_EQ(made.variable("LONG"), long_value);
    EXPECT_EQ(made.variable("MISSING"), "");
    EXPECT_EQ(made.body(), "type=PPTP");
    EXPECT_EQ(made.release(), text);
  }
}

TEST(GateRequest, TellsTheProgramsALengthThatWasNotAnnounced) {
  Request again;
  again.feed(parsed(pair("A", "b"), "nine byte").release());
  EXPECT_EQ(again.variable("CONTENT_LENGTH"), "9");
  EXPECT_EQ(again.body(), "nine byte");
  EXPECT_EQ(parsed(pair("A", "b"), "").variable("CONTENT_LENGTH"), "");
}

TEST(GateRequest, RefusesWhatNoWebServerSends) {
  const std::string head = BEGIN + record(4, pair("A", "b")) + record(4, "");
  const std::string texts[] = {
      "GET / HTTP/1.0\r\n\r\n",
      record(5, "body"),
      record(4, pair("A", "b")),
      BEGIN + BEGIN,
      BEGIN + record(5, "body before the head's end"),
      BEGIN + record(4, "\5\1A") + record(4, ""),
      BEGIN + record(4, std::string{"\x01\xff\xff\xff\xff", 5}) + record(4, ""),
      BEGIN + record(4, "\x80") + record(4, ""),
      head + record(4, pair("A", "b")),
      head + record(5, "x", 0, 8),
      record(1, std::string{"\0\2\0\0\0\0\0\0", 8}),  // not the role of one who answers
      record(1, "short"),
  };
  for (const std::string& text : texts) {
    Request made;
    EXPECT_EQ(made.feed(text), Request::State::Malformed) << text;
  }
  Request endless;
  endless.feed(BEGIN);
  auto state = Request::State::Head;
  for (int i = 0; i < 100 && state == Request::State::Head; ++i)
    state = endless.feed(record(4, std::string(1000, 'x')));
  EXPECT_EQ(state, Request::State::Malformed);
}

TEST(GateRequest, IsRefusedUnderItsOwnNumber) {
  const std::string answer = parsed("", "").refusal("503 Busy", "Later.", 5);
  EXPECT_EQ(answer, record(6,
                           "Status: 503 Busy\r\nContent-Type: text/plain; "
                           "charset=utf-8\r\nRetry-After: 5\r\n\r\nLater.\n") +
                        record(6, "") + record(3, std::string(8, '\0')));
}

TEST(GateRules, FindTheProfileWhereTheProgramFindsIt) {
  const std::string query = pair("QUERY_STRING", "type=WG&index=3&sid=x");
  const std::string parts = pair("CONTENT_TYPE", "multipart/form-data; boundary=edge");
  const auto part = [](const std::string& name, const std::string& value,
                       const std::string& more = "") {
    return "--edge\r\nContent-Disposition: form-data; name=\"" + name + "\"" + more + "\r\n\r\n" +
           value + "\r\n";
  };
  const std::tuple<std::string, std::string, std::string, long> rows[] = {
      {query, "", "WG", 3},
      {query, "index=4&%74ype=p+ptp", "p ptp", 4},
      {query, "index=4&=", "WG", 4},
      {query + parts, part("index", "5") + "--edge--\r\n", "WG", 5},
      {parts,
       part("type", "L2TP") + part("index", " 6") + part("f", "x", "; filename=\"a\"") +
           part("index", "7"),
       "L2TP", 6},
      {"", "", "", 0},
  };
  for (const auto& [variables, body, type, index] : rows) {
    const gate::Profile found = profile_of(parsed(variables, body));
    EXPECT_EQ(found.type, type) << body;
    EXPECT_EQ(found.index, index) << body;
  }
  EXPECT_TRUE(may_be_same({"PPTP", 1}, {"pptp", 1}));
  EXPECT_TRUE(may_be_same({"PPTP", 1}, {"256", 1}));
  EXPECT_FALSE(may_be_same({"PPTP", 1}, {"L2TP", 1}));
  EXPECT_FALSE(may_be_same({"256", 1}, {"512", 1}));
  EXPECT_FALSE(may_be_same({"PPTP", 1}, {"PPTP", 2}));
}

}  // namespace
}  // namespace fenro::test
