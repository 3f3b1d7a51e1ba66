#include "ormel/cgi/multipart.h"

#include <fcntl.h>

#include "ormel/cgi/cgi_parser.h"
#include "unit/cgi/cgi_fixture.h"

namespace {

using namespace std::string_literals;

std::string part(const std::string& parameters, const std::string& data) {
  return "--B\r\nContent-Disposition: form-data; " + parameters + "\r\n\r\n" + data + "\r\n";
}

std::string field(const std::string& name, const std::string& data) {
  return part("name=\"" + name + "\"", data);
}

std::string upload(const std::string& name, const std::string& data) {
  return part("name=\"" + name + "\"; filename=\"f\"", data);
}

const std::string END = "--B--\r\n";

std::string taken(const std::string& data) {
  return "a=" + data + " file f status 0\n";
}

class MultipartTest : public CgiRequestTest {
 protected:
  void SetUp() override { announce("multipart/form-data; boundary=B"); }
  void expect(const std::string& body, const std::string& vars) {
    for (const size_t size : READ_SIZES) {
      settings.buffer_size = size;
      EXPECT_EQ(parse(body), vars) << body.substr(0, 300) << " by " << size;
    }
  }
};

TEST_F(MultipartTest, DataArrivesWholeWhateverItsEnd) {
  for (const std::string& data :
       std::initializer_list<std::string>{"1", "\r", "\n", "\r\n", "\r\r", "\r\n\r\n", "\r\n\r",
                                          "x\r\n-", "x\r\n--", "\r\n--\r\n--A", "--B", "x--B--",
                                          "\n--B", "\r--B", "\r\n-\r", "1\r\n--C\r\n", "a\0b"s}) {
    const std::string shown =
        data.substr(0, data.find('\0'));  // a field is read as text, up to its first NUL
    expect(field("a", data) + field("z", "9") + END,
           "a=" + shown + " of " + std::to_string(data.size()) + " status 0\nz=9 of 1 status 0\n");
    expect(upload("a", data) + END, taken(data));
  }
}

TEST_F(MultipartTest, AnEmptyPartIsAVariableWithoutAValue) {
  expect(field("a", "") + END, "a=(null) of 0 status 0\n");
  expect(upload("a", "") + END, "a= file f status 0\n");
}

TEST_F(MultipartTest, RepeatsFollowTheMode) {
  const std::string body = upload("a", "1") + field("a", "2") + upload("a", "3") + END;
  expect(body, "a=3 file f status 0\n");
  expect(upload("a", "1") + field("a", "2") + END, "a=2 of 1 status 0\n");
  settings.var_mode = SINGLE_VAR_MODE;
  expect(body, "a=1 file f status 0\n");
  expect(field("a", "1") + field("a", "2") + END, "a=1 of 1 status 0\n");
  settings.var_mode = MULTIPLE_VAR_MODE;
  expect(body, "a=1 file f status 0\na=2 of 1 status 0\na=3 file f status 0\n");
}

TEST_F(MultipartTest, ANameIsAParameterOfItsOwn) {
  const std::pair<const char*, const char*> ROWS[] = {
      {R"(filename="f"; name="a")", "a=1 file f status 0\n"},
      {R"(name="a"; filename="")", "a=1 of 1 status 0\n"},
      {R"(filename="f")", ""},
      {R"(filename="; name=";x="b")", ""},
      {R"(filename="; name="; name="a")", "a=1 file ; name= status 0\n"},
      {R"(name="a)", ""},
      {R"(name=a)", ""},
      {R"(name="a[0]%41+")", "a[0]%41+=1 of 1 status 0\n"},
      {R"(name="")", "=1 of 1 status 0\n"},
  };
  for (const auto& [parameters, vars] : ROWS) expect(part(parameters, "1") + END, vars);
}

TEST_F(MultipartTest, DataOfANamelessPartGoesNowhereAndASecondNameTakesIt) {
  expect(field("a", "1") + "--B\r\nContent-Type: text/plain\r\n\r\n2\r\n" + END,
         "a=1 of 1 status 0\n");
  expect("--B\r\nA: name=\"u\"; filename=\"f\"\r\nB: name=\"v\"\r\n\r\n2\r\n" + END,
         "u= file f status 0\nv=2 of 1 status 0\n");
}

TEST_F(MultipartTest, AStopKeepsWhatThereIs) {
  const std::string kept = "a=1 of 1 status 0\n";
  for (const char* rest :
       {"", "--B-", "--B-x\r\n", "--Bx", "--B\rx", "--B\r\nX1: y\r\n", "--B\r\nX_", "--B\r\nX\rX",
        "--B\r\nX: y\rz", "--B--\r\n--B\r\nX: name=\"b\"\r\n\r\n2\r\n--B--"})
    expect(field("a", "1") + rest, kept);
  expect("preamble\r\n" + field("a", "1") + END, "");
  expect(upload("a", "cut o"), "a=cut o file f status 0\n");
}

TEST_F(MultipartTest, OneHeaderHolds2047BytesAndItsEnd) {
  const std::string fits = std::string(2047, 'x');
  expect("--B\r\nX: " + fits + "\r\nY: name=\"a\"\r\n\r\n1\r\n" + END, "a=1 of 1 status 0\n");
  expect("--B\r\nX: " + fits + "x\r\nY: name=\"a\"\r\n\r\n1\r\n" + END, "");
  expect("--B\r\n" + fits + ": y\r\nY: name=\"a\"\r\n\r\n1\r\n" + END, "a=1 of 1 status 0\n");
  expect("--B\r\n" + fits + "x: y\r\nY: name=\"a\"\r\n\r\n1\r\n" + END, "");
}

TEST_F(MultipartTest, TheBoundaryIsUnquotedAndEndsAtTheNextParameter) {
  for (const char* type :
       {"multipart/form-data; boundary=\"B\"", "multipart/form-data; boundary=\"B\"; charset=utf-8",
        "multipart/form-data; boundary=B;charset=utf-8", "x/y;boundary=\"B"}) {
    announce(type);
    expect(field("a", "1") + END, "a=1 of 1 status 0\n");
  }
}

TEST_F(MultipartTest, AnUploadIsPrivateAndGoesWithTheRequest) {
  cgi_parser parser(settings, "boundary=B");
  const MultipartParser state = new_multipart_parser(&parser);
  const std::string body = upload("a", "secret");
  ASSERT_EQ(multipart_parser_execute(state.get(), body.data(), body.size()), body.size());
  struct stat file {};
  ASSERT_EQ(stat(get_cgi_var_value(get_cgi_var(parser.var_list, "a")), &file), 0);
  EXPECT_EQ(file.st_mode & 07777U, 0600U);
  EXPECT_EQ(fcntl(parser.fupload, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
}

TEST_F(MultipartTest, ARequestHasItsShareOfTemporaryFilesAndNoMore) {
  cgi_parser parser(settings, "boundary=B");
  const MultipartParser state = new_multipart_parser(&parser);
  const size_t left = CGI_CONTENT_LIMIT - parser.content_length;
  ASSERT_TRUE(charge_cgi_content(&parser, left - 2 * CGI_RECORD_PRICE - CGI_UPLOAD_PRICE));
  const std::string body = upload("a", "1") + upload("b", "2") + END;
  EXPECT_LT(multipart_parser_execute(state.get(), body.data(), body.size()), body.size());
  EXPECT_TRUE(get_cgi_var(parser.var_list, "a"));
  EXPECT_FALSE(get_cgi_var(parser.var_list, "b"));
}

TEST_F(MultipartTest, WithoutATemporaryFileTheRequestEndsThere) {
  const std::string tempname = folder.path() / "no/such/upload-XXXXXX";
  settings.upload_tempname = tempname.c_str();
  expect(field("a", "1") + upload("b", "2") + field("c", "3") + END, "a=1 of 1 status 0\n");
}

}  // namespace
