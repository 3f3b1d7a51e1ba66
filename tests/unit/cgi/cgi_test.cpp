#include "ormel/cgi/cgi.h"

#include "ormel/cgi/cgi_parser.h"
#include "ormel/cgi/formpart.h"
#include "unit/cgi/cgi_fixture.h"

namespace {

TEST(CgiUrlDecode, DecodesOnlyWholeEscapes) {
  const std::pair<const char*, const char*> ROWS[] = {
      {"", ""},       {"a+b", "a b"},  {"%41%6a%6A", "Ajj"}, {"%zz", "%zz"},   {"%", "%"},
      {"%4", "%4"},   {"%4g", "%4g"},  {"%%41", "%A"},       {"%2541", "%41"}, {"%2B+", "+ "},
      {"a%00b", "a"}, {"%FF", "\xff"}, {"+%", " %"},
  };
  for (const auto& [coded, decoded] : ROWS) {
    std::string text = coded;
    cgi_url_decode(text.data());
    EXPECT_STREQ(text.c_str(), decoded) << coded;
  }
}

TEST(CgiVarDeathTest, WhatIsNoRecordAborts) {
  cgi_var other{};
  for (auto* use : {+[](cgi_var* var) { std::ignore = get_cgi_var(var, "a"); },
                    +[](cgi_var* var) { std::ignore = get_cgi_var_value(var); },
                    +[](cgi_var* var) { std::ignore = is_cgi_var_list(var); },
                    +[](cgi_var* var) { free_cgi_var(var); }})
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

TEST_F(CgiRequestTest, ABodyVariableMeetsTheOneOfTheQueryStringByTheMode) {
  announce("");
  setenv("QUERY_STRING", "x=query&y=1", 1);
  EXPECT_EQ(parse("x=body"), "x=body of 4 status 0\ny=1 of 1 status 0\n");
  settings.var_mode = SINGLE_VAR_MODE;
  EXPECT_EQ(parse("x=body"), "x=query of 5 status 0\ny=1 of 1 status 0\n");
  settings.var_mode = MULTIPLE_VAR_MODE;
  EXPECT_EQ(parse("x=body"), "x=query of 5 status 0\nx=body of 4 status 0\ny=1 of 1 status 0\n");
}

TEST_F(CgiRequestTest, AFormIsReadTheSameHoweverItIsCut) {
  using namespace std::string_view_literals;
  constexpr std::pair<std::string_view, std::string_view> ROWS[] = {
      {"", ""},
      {"a=1", "a=1 of 1 status 0\n"},
      {"x=1&x=2", "x=2 of 1 status 0\n"},
      {"a=&b", "a=(null) of 0 status 0\n"},
      {"a=1&a=", "a=(null) of 0 status 0\n"},
      {"flag&&a=b=c&", "a=b=c of 3 status 0\n"},
      {"a[0]=1&b[=2&c[[]x&d[]=4", "a=1 of 1 status 0\nb=2 of 1 status 0\nd=4 of 1 status 0\n"},
      {"n%61me%5B1%5D=v+%3d", "name=v = of 5 status 0\n"},
      {"%5B=empty+name", "=empty name of 10 status 0\n"},
      {"v=[x]=%zz", "v=[x]=%zz of 7 status 0\n"},
      {"a=1&=2&c=3", "a=1 of 1 status 0\n"},
      {"a=1&b]=2&c=3", "a=1 of 1 status 0\n"},
      {"a=1&[b]=2&c=3", "a=1 of 1 status 0\n"},
      {"a=1&]&c=3", "a=1 of 1 status 0\n"},
      {"a=1\0z&b\0c=2"sv, "a=1 of 3 status 0\nb=2 of 1 status 0\n"},
  };
  announce("application/x-www-form-urlencoded");
  for (const auto& [text, vars] : ROWS) {
    for (const size_t size : READ_SIZES) {
      settings.buffer_size = size;
      EXPECT_EQ(parse(text), vars) << text << " by " << size;
    }
  }
}

TEST_F(CgiRequestTest, AStopInTheQueryStringDoesNotStopTheBody) {
  announce("");
  setenv("QUERY_STRING", "a=1&b]=2&c=3", 1);
  EXPECT_EQ(parse("d=4"), "a=1 of 1 status 0\nd=4 of 1 status 0\n");
}

TEST(FormpartParserExecute, TellsHowFarItCame) {
  cgi_parser parser(cgi_default_settings);
  formpart_parser state;
  EXPECT_EQ(formpart_parser_execute(&parser, &state, "a=1&b", 5), 5U);
  EXPECT_EQ(state.state, s_name);
  EXPECT_EQ(formpart_parser_execute(&parser, &state, "b]=2", 4), 1U);
  EXPECT_EQ(formpart_parser_execute(&parser, &state, "&", 1), 1U);
  EXPECT_EQ(state.state, s_name_begin);
}

TEST(FormpartParserExecute, StopsWhenTheRequestHasHadItsShareOfRecords) {
  cgi_parser parser(cgi_default_settings);
  formpart_parser state;
  ASSERT_TRUE(
      charge_cgi_content(&parser, CGI_CONTENT_LIMIT - parser.content_length - CGI_RECORD_PRICE));
  EXPECT_EQ(formpart_parser_execute(&parser, &state, "a=1&b=2", 7), 4U) << "room for one record";
  EXPECT_EQ(fuzz::describe(parser.var_list), "a=1 of 1 status 0\n");
}

}  // namespace
