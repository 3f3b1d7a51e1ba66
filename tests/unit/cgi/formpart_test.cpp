#include "ormel/cgi/formpart.h"

#include "ormel/cgi/cgi_parser.h"
#include "unit/cgi/cgi_fixture.h"

namespace {

struct Row {
  std::string_view text;
  std::string_view vars;
};

TEST_F(CgiRequestTest, AFormIsReadTheSameHoweverItIsCut) {
  using namespace std::string_view_literals;
  constexpr Row ROWS[] = {
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
  for (const Row& row : ROWS) {
    for (const size_t size : READ_SIZES) {
      SCOPED_TRACE(std::string(row.text) + " by " + std::to_string(size));
      settings.buffer_size = size;
      EXPECT_EQ(parse(row.text), row.vars);
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
  ASSERT_TRUE(charge_cgi_content(&parser, CGI_CONTENT_LIMIT - parser.content_length - CGI_RECORD_PRICE));

  EXPECT_EQ(formpart_parser_execute(&parser, &state, "a=1&b=2", 7), 4U) << "there is room for one record";
  EXPECT_EQ(fuzz::describe(parser.var_list), "a=1 of 1 status 0\n");
}

}  // namespace
