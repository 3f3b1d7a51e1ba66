#include "ormel/cgi/cgi.h"

#include <algorithm>
#include <ctime>
#include <tuple>

#include "unit/cgi/cgi_fixture.h"

namespace {

TEST(CgiUrlDecode, DecodesOnlyWholeEscapes) {
  constexpr struct {
    const char* text;
    const char* decoded;
  } ROWS[] = {
      {"", ""},       {"a+b", "a b"},  {"%41%6a%6A", "Ajj"}, {"%zz", "%zz"},   {"%", "%"},
      {"%4", "%4"},   {"%4g", "%4g"},  {"%%41", "%A"},       {"%2541", "%41"}, {"%2B+", "+ "},
      {"a%00b", "a"}, {"%FF", "\xff"}, {"+%", " %"},
  };
  for (const auto& row : ROWS) {
    SCOPED_TRACE(row.text);
    std::string text = row.text;
    cgi_url_decode(text.data());
    EXPECT_STREQ(text.c_str(), row.decoded);
  }
}

TEST(CgiVar, NullIsHarmlessEverywhere) {
  free_cgi_var(nullptr);
  EXPECT_EQ(get_cgi_var(nullptr, "a"), nullptr);
  EXPECT_EQ(get_cgi_var_status(nullptr), UNKNOW_VAR);
  EXPECT_EQ(get_cgi_var_name(nullptr), nullptr);
  EXPECT_EQ(get_cgi_var_value(nullptr), nullptr);
  EXPECT_EQ(get_cgi_var_filename(nullptr), nullptr);
  EXPECT_FALSE(is_cgi_var_list(nullptr));
}

TEST(CgiVarDeathTest, WhatIsNoRecordAborts) {
  cgi_var other{};
  for (auto* use :
       {+[](cgi_var* var) { std::ignore = get_cgi_var(var, "a"); },
        +[](cgi_var* var) { std::ignore = get_cgi_var_value(var); },
        +[](cgi_var* var) { std::ignore = is_cgi_var_list(var); }, +[](cgi_var* var) { free_cgi_var(var); }})
    EXPECT_DEATH(use(&other), R"(memcmp\(var, .*cGI.*, 3\) == 0)");
}

TEST_F(CgiRequestTest, VariablesAreFoundFromTheHeadAndRepeatsFromTheVariable) {
  setenv("QUERY_STRING", "x=1&y=9&x=2&x=3", 1);
  settings.var_mode = MULTIPLE_VAR_MODE;
  const CgiRequest request(settings);

  cgi_var* x = request.find("x");
  EXPECT_STREQ(get_cgi_var_value(x), "1");
  EXPECT_TRUE(is_cgi_var_list(x));
  EXPECT_STREQ(get_cgi_var_value(get_cgi_var(x, "x")), "2");
  EXPECT_STREQ(get_cgi_var_value(get_cgi_var(get_cgi_var(x, "x"), "x")), "3");
  EXPECT_EQ(get_cgi_var(x->list_tail, "x"), nullptr);
  EXPECT_STREQ(get_cgi_var_name(get_cgi_var(x, nullptr)), "y");
  EXPECT_EQ(get_cgi_var_name(request.vars()), nullptr);
  EXPECT_FALSE(request.has("z"));
  EXPECT_STREQ(request.value("z"), "");
}

TEST_F(CgiRequestTest, ABodyIsReadOnlyIfItIsAnnounced) {
  EXPECT_EQ(parse("a=1"), "");

  announce("application/x-www-form-urlencoded");
  EXPECT_EQ(parse("a=1&length=more than announced"), "a=1 of 1 status 0\nlength=more than announced of 19 status 0\n");
}

TEST_F(CgiRequestTest, ABodyVariableMeetsTheOneOfTheQueryStringByTheMode) {
  announce("");
  setenv("QUERY_STRING", "x=query&y=1", 1);
  EXPECT_EQ(parse("x=body"), "x=body of 4 status 0\ny=1 of 1 status 0\n");

  settings.var_mode = SINGLE_VAR_MODE;
  EXPECT_EQ(parse("x=body"), "x=query of 5 status 0\ny=1 of 1 status 0\n");

  settings.var_mode = MULTIPLE_VAR_MODE;
  EXPECT_EQ(parse("x=body"), "x=query of 5 status 0\nx=body of 4 status 0\ny=1 of 1 status 0\n");
}

TEST_F(CgiRequestTest, AHundredThousandVariablesAreNoBurden) {
  announce("");
  std::string body;
  for (int number = 0; number < 100000; ++number) body += "v" + std::to_string(number) + "=1&";
  const clock_t begin = clock();
  const std::string vars = parse(body);

  // A walk through the list for each variable takes minutes.
  EXPECT_LT((clock() - begin) / CLOCKS_PER_SEC, 5);
  EXPECT_EQ(std::count(vars.begin(), vars.end(), '\n'), 100000);
}

TEST_F(CgiRequestTest, AnEndlessValueIsGivenUpAndMarked) {
  announce("");

  EXPECT_EQ(parse_endless("sid=1&a="), "sid status 0\na status 3\n");
}

}  // namespace
