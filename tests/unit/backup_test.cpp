// Backups: what is sealed comes back whole, and what somebody has changed is refused.
#include "ormel/changes/backup.h"

#include <gmock/gmock.h>

#include "ormel/base/crypto.h"
#include "ormel/base/error.h"
#include "ormel/base/file.h"
#include "ormel/base/seal.h"
#include "ormel/changes/backup_restore.h"
#include "ormel/changes/tar.h"

namespace ormel::changes {
namespace {

using openssl::Sealing;
using testing::HasSubstr;

constexpr const char* PASSPHRASE = "correct horse battery";
constexpr const char* SETTINGS = "/etc/config/vpn.conf";

std::string sealed(const std::string& text) {
  std::string out;
  EXPECT_EQ(openssl::seal(text, PASSPHRASE, out), Sealing::Done);
  return out;
}

TEST(Seal, GivesBackWhatWasSealed) {
  for (const std::string& text :
       {std::string(), std::string("a\0b", 3), std::string(100000, 'x')}) {
    const std::string once = sealed(text);
    std::string back = "old";
    EXPECT_EQ(openssl::unseal(once, PASSPHRASE, back), Sealing::Done);
    EXPECT_EQ(back, text);
    EXPECT_NE(once, sealed(text)) << "each time under another salt and nonce";
    EXPECT_EQ(openssl::unseal(once, "another passphrase", back), Sealing::WrongPassphrase);
    EXPECT_EQ(back, "");
  }
}

TEST(Seal, RefusesEveryChange) {
  const std::string good = sealed("settings");
  std::string back;
  for (size_t at = 12; at < good.size(); at += 17) {  // salt, nonce, length, text and tag
    std::string bad = good;
    bad[at] = static_cast<char>(bad[at] ^ 1);
    EXPECT_NE(openssl::unseal(bad, PASSPHRASE, back), Sealing::Done) << at;
  }
  for (size_t length = 0; length < good.size(); length += 7)
    EXPECT_EQ(openssl::unseal(good.substr(0, length), PASSPHRASE, back), Sealing::NotSealed);
  EXPECT_EQ(openssl::unseal(good + 'x', PASSPHRASE, back), Sealing::NotSealed);

  const std::tuple<size_t, char, Sealing> heads[] = {
      {0, 'X', Sealing::NotSealed}, {8, 2, Sealing::NewerFormat},
      {8, 0, Sealing::NotSealed},   {9, 30, Sealing::Unusual},  // 8 GiB of memory
      {9, 1, Sealing::Unusual},     {10, 64, Sealing::Unusual},
      {11, 100, Sealing::Unusual},  {9, 14, Sealing::WrongPassphrase}};
  for (const auto& [at, byte, expected] : heads) {
    std::string bad = good;
    bad[at] = byte;
    EXPECT_EQ(openssl::unseal(bad, PASSPHRASE, back), expected) << at;
  }
}

Backup sample() {
  return {.version = "0.1.0",
          .host = "office",
          .time = 1795625173,
          .files = {{SETTINGS,
                     "[OPENVPN]\nEnable = TRUE\n[PPTP_CLIENT1]\nIndex = 1\n"
                     "Profile File = far%20away\n"},
                    {"/etc/config/vpn_user_ex.conf", "bob:1:0:0:0:0\n"}}};
}

TEST(BackupFile, GivesBackWhatWasPacked) {
  std::string text;
  ASSERT_FALSE(write_backup(sample(), PASSPHRASE, text));
  Backup back;
  ASSERT_FALSE(read_backup(text, PASSPHRASE, back));
  EXPECT_EQ(back.host, "office");
  ASSERT_EQ(back.files.size(), 2U);
  EXPECT_EQ(back.find(SETTINGS)->content, sample().files[0].content);
  EXPECT_EQ(summary(contents(back)), "1 profile, 1 server that is on, 1 user with rights");
  EXPECT_EQ(write_backup(sample(), "short", text).code, ERR_PASS_LENGTH);
}

// Keeps old backups readable.
TEST(BackupFile, OfFormatOneIsRead) {
  std::string text;
  ASSERT_TRUE(system::read_file(ORMEL_TEST_DATA "/backup-format-1.ormel", text));
  Backup back;
  const Fault fault = read_backup(text, PASSPHRASE, back);
  ASSERT_FALSE(fault) << fault.reason;
  EXPECT_EQ(back.host, "appliance");
  EXPECT_EQ(summary(contents(back)), "1 profile, 1 user with rights");
  ASSERT_NE(back.find(SETTINGS), nullptr);
  EXPECT_THAT(back.find(SETTINGS)->content, HasSubstr("Profile File = far%20away\n"));
}

// A hostile tar, as somebody who knows the passphrase can seal it.
std::string manifest(const std::string& files, const char* format = "1") {
  return R"({"format":)" + std::string(format) + R"(,"version":"9","host":"h","time":1,"files":[)" +
         files + "]}";
}

std::string row(const std::string& path, const std::string& content) {
  return R"({"path":")" + path + R"(","size":)" + std::to_string(content.size()) +
         R"(,"sha256":")" + openssl::sha256(content) + "\"}";
}

Fault read_tar(
    const std::vector<TarFile>& files,
    const std::function<void(std::string&)>& change = [](auto&) {}) {
  std::string tar;
  EXPECT_EQ(pack_tar(files, tar), "");
  change(tar);
  Backup out;
  return unpack_backup(tar, out);
}

TEST(BackupFile, RefusesFilesThatAreNotItsOwn) {
  const std::string name = std::string(SETTINGS).substr(1);
  const std::string good = row(SETTINGS, "a");
  const std::pair<std::vector<TarFile>, const char*> cases[] = {
      {{}, "no manifest"},
      {{{name, "a"}, {"manifest.json", manifest(good)}}, "no manifest"},
      {{{"manifest.json", "{"}, {name, "a"}}, "manifest is malformed"},
      {{{"manifest.json", manifest(good, "2")}, {name, "a"}}, "newer version"},
      {{{"manifest.json", manifest(good, "0")}, {name, "a"}}, "manifest is malformed"},
      {{{"manifest.json", manifest(good)}}, "not those of its manifest"},
      {{{"manifest.json", manifest(good)}, {name, "b"}}, "not what the manifest says"},
      {{{"manifest.json", manifest(good)}, {name, "a"}, {name, "a"}}, "not those of its manifest"},
      {{{"manifest.json", manifest(good + ',' + good)}, {name, "a"}, {name, "a"}}, "comes twice"},
      {{{"manifest.json", manifest(good)}, {"etc/shadow", "a"}}, "not those of its manifest"},
      {{{"manifest.json", manifest(row("/etc/shadow", "a"))}, {"etc/shadow", "a"}}, "no file of"},
      {{{"manifest.json", manifest(row("", "a"))}, {"x", "a"}}, "not those of its manifest"},
  };
  for (const auto& [files, said] : cases) {
    const Fault fault = read_tar(files);
    EXPECT_THAT(fault.reason, HasSubstr(said));
    EXPECT_NE(fault.advice, "");
  }
  EXPECT_FALSE(read_tar({{"manifest.json", manifest(good)}, {name, "a"}}));
}

// A field of the second head of a tar, with the sum of the head made right again.
void set_field(std::string& tar, size_t at, const std::string& value) {
  constexpr size_t HEAD = 512, SUM = 148, SUM_SIZE = 8;
  const size_t second = 2 * HEAD;
  ASSERT_GT(tar.size(), second + HEAD);
  tar.replace(second + at, value.size(), value);
  tar.replace(second + SUM, SUM_SIZE, SUM_SIZE, ' ');
  unsigned sum = 0;
  for (size_t i = 0; i < HEAD; ++i) sum += static_cast<unsigned char>(tar[second + i]);
  char octal[SUM_SIZE];
  std::snprintf(octal, sizeof octal, "%06o", sum);
  tar.replace(second + SUM, SUM_SIZE - 1, octal, SUM_SIZE - 1);
}

TEST(BackupFile, RefusesLinksDevicesAndHugeSizes) {
  constexpr size_t SIZE = 124, TYPE = 156, TARGET = 157;
  const std::string name = std::string(SETTINGS).substr(1);
  const std::vector<TarFile> files{{"manifest.json", manifest(row(SETTINGS, "a"))}, {name, "a"}};
  for (const char type : {'1', '2', '3', '4', '5', '6'}) {
    const Fault fault = read_tar(files, [&](std::string& tar) {
      set_field(tar, TARGET, "etc/shadow");
      set_field(tar, TYPE, std::string(1, type));
    });
    EXPECT_EQ(fault.code, ERR_REGULAR_FILE) << type;
  }
  for (const char* size : {"77777777777", "00001000000", "00000000000"}) {
    const Fault fault = read_tar(files, [&](std::string& tar) { set_field(tar, SIZE, size); });
    EXPECT_EQ(fault.code, ERR_REGULAR_FILE) << size;
  }
  for (const size_t length : {600, 1024, 1100, 1536}) {
    EXPECT_TRUE(read_tar(files, [&](std::string& tar) { tar.resize(length); })) << length;
  }
}

TEST(BackupSelection, KnowsItsParts) {
  Selection selection;
  EXPECT_FALSE(Selection::read("profiles,rights", selection));
  EXPECT_TRUE(selection.profiles);
  EXPECT_FALSE(selection.servers);
  EXPECT_EQ(selection.parts, (std::set{Part::Profiles, Part::Rights}));
  for (const char* wrong : {"", "settings", "profiles,", "Rights"}) {
    const Fault fault = Selection::read(wrong, selection);
    EXPECT_EQ(fault.code, ERR_VALUE) << wrong;
    EXPECT_THAT(fault.advice, HasSubstr("servers,profiles"));
  }
  EXPECT_FALSE(Selection::read(selectable(), selection));
  EXPECT_EQ(selection.parts, Selection::all().parts);
}

}  // namespace
}  // namespace ormel::changes
