// vpncaas: which files it touches, and what becomes of them.
#include <gmock/gmock.h>

#include "daemons/jsond/methods.h"
#include "unit/platform/scratch.h"

namespace fenro::jsond {
namespace {

using testing::HasSubstr;
using testing::StartsWith;

class JsondTest : public testing::Test {
 protected:
  void SetUp() override { std::filesystem::create_directories(folder + "/sub"); }
  std::string call(const std::string& name, const std::string& body) const {
    for (const Method& method : methods())
      if (method.name == name) return answer(documents, method, body);
    return "no such method";
  }
  std::string read(const std::string& file) const {
    return call("read_json", R"({"path":")" + file + "\"}");
  }
  std::string write(const std::string& file, const std::string& data) const {
    return call("write_json", R"({"path":")" + file + R"(","data":)" + data + "}");
  }
  test::Scratch scratch;
  const std::string folder = scratch.path("config");
  const Documents documents{folder};
};

TEST_F(JsondTest, ReplacesADocumentWholeAndReadsItBack) {
  const std::string file = folder + "/vpn_block.conf";
  EXPECT_EQ(read(file), R"({"error":-1,"data":"No such file or directory"})");
  EXPECT_EQ(write(file, R"({"global": {"enable": true, "limit": 5}})"), R"({"error":0,"data":""})");
  EXPECT_EQ(read(file), R"({"error":0,"data":{"global":{"enable":true,"limit":5}}})");
  EXPECT_EQ(scratch.mode("config/vpn_block.conf"), 0600U);
  std::filesystem::create_hard_link(file, folder + "/before");
  EXPECT_EQ(write(file, "[]"), R"({"error":0,"data":""})");
  EXPECT_NE(scratch.read("config/before"), "[]\n") << "written in its place";
  EXPECT_EQ(scratch.read("config/vpn_block.conf"), "[]\n");
  EXPECT_EQ(write(folder + "/sub/x", "{}"), R"({"error":0,"data":""})");
}

TEST_F(JsondTest, LeavesAloneWhatIsNotBelowItsFolder) {
  const std::string outside = scratch.write("outside", "{\"secret\":1}");
  std::filesystem::create_directory(scratch.path("config2"));
  std::filesystem::create_symlink(outside, folder + "/link");
  std::filesystem::create_symlink(scratch.path(""), folder + "/up");
  for (const std::string& path : std::initializer_list<std::string>{
           "", "/", folder, folder + "/", folder + "/.", folder + "/sub/..", "outside", outside,
           folder + "2/x", folder + "2", folder + "/../outside", folder + "/up/outside",
           "/etc/x/..", folder + "/.", folder + "/no/such", folder + "/link",
           folder + "/sub/../../outside", folder + "/sub/\\u0000",
           folder + "/" + std::string(5000, 'x')}) {
    EXPECT_THAT(read(path), StartsWith("{\"error\":-1,")) << path;
    EXPECT_THAT(write(path, "{}"), StartsWith("{\"error\":-1,")) << path;
  }
  EXPECT_EQ(scratch.read("outside"), "{\"secret\":1}");
  EXPECT_TRUE(std::filesystem::is_empty(folder + "/sub") &&
              std::filesystem::is_empty(scratch.path("config2")));
}

TEST_F(JsondTest, RefusesWhatIsNoDocument) {
  const std::string file = scratch.write("config/x", "{\"kept\":1}");
  for (const char* data : {"7", "\"text\"", "null", "true", ""})
    EXPECT_THAT(write(file, data), HasSubstr("\"error\":-1"));
  EXPECT_THAT(write(file, "[\"" + std::string(DOCUMENT_MAX, 'x') + "\"]"), HasSubstr("too long"));
  EXPECT_THAT(call("write_json", R"({"path":")" + file + "\"}"), HasSubstr("\"error\":-1"));
  EXPECT_EQ(scratch.read("config/x"), "{\"kept\":1}");
  for (const char* body : {"", "[]", "{", "\xff", R"({"path":7})", R"({"path":{}})"})
    EXPECT_THAT(call("read_json", body), HasSubstr("\"error\":-1")) << body;
  for (const char* damaged : {"", "{\"global\":", "\xff", "7"}) {
    scratch.write("config/x", damaged);
    EXPECT_THAT(read(file), HasSubstr("\"error\":-1")) << damaged;
  }
}

}  // namespace
}  // namespace fenro::jsond
