// SPDX-License-Identifier: GPL-2.0-only
// What a detection is reported as, whatever kind of signature made it.
#include <clamav.h>

#include <cstdlib>

#include "archives_fixture.h"
#include "engine_fixture.h"

namespace engine_test {
namespace {

using testing::IsEmpty;

std::string digest(const char* algorithm, const std::string& content) {
  std::array<unsigned char, 64> bytes{};
  unsigned int length = 0;
  EXPECT_NE(cl_hash_data(algorithm, content.data(), content.size(), bytes.data(), &length),
            nullptr);
  return hex(std::string(bytes.begin(), bytes.begin() + length));
}

std::string hash_signature(const char* algorithm, const std::string& name,
                           const std::string& content) {
  return digest(algorithm, content) + ":" + std::to_string(content.size()) + ":" + name + "\n";
}

TEST_F(ClamavEngine, EveryKindOfSignatureIsExactWhereItsNameSaysNothingElse) {
  write_file(database_ / "a.hdb", hash_signature("md5", "Win.Trojan.Md5", "known by its md5"));
  write_file(database_ / "b.hsb", hash_signature("sha256", "Win.Worm.Sha", "known by its sha256"));
  write_file(database_ / "c.ndb", signature("Win.Dialer.Hex", "known by its beginning"));
  write_file(database_ / "d.ldb", "Win.Proxy.Logic;Target:0;(0&1);" + hex("known by two") + ";" +
                                      hex("of its parts") + "\n");
  write_file(database_ / "e.yar",
             "rule Backdoor_Rule { strings: $a = \"known by a rule\" condition: $a }\n");
  start();
  const VSEHANDLE handle = make_handle();
  ASSERT_NE(handle, nullptr);
  struct Row {
    std::string content;
    std::string name;
    std::uint32_t type;
  };
  for (const Row& row : {Row{"known by its md5", "Win.Trojan.Md5", 24},
                         Row{"known by its sha256", "Win.Worm.Sha", 16},
                         Row{"known by its beginning, whatever follows", "Win.Dialer.Hex", 8},
                         Row{"of its parts, known by two", "Win.Proxy.Logic", 18},
                         Row{"this is known by a rule", "YARA.Backdoor_Rule", 4}}) {
    for (const std::string& content : {row.content, zip_with({{"member", row.content}})}) {
      events.clear();
      EXPECT_EQ(scan_path(handle, file("known", content)), VSE_SCAN_DETECTED) << row.name;
      ASSERT_EQ(events.size(), 1U) << row.name;
      EXPECT_EQ(events[0].name, row.name);
      EXPECT_EQ(events[0].type, row.type) << row.name;
      EXPECT_EQ(events[0].accuracy, unsigned{VSE_ACCURACY_EXACT}) << row.name;
      EXPECT_EQ(events[0].archive, content == row.content ? "" : "member");
    }
  }
}

// The types that signature names can stand for, each in a file of its own.
const std::map<std::uint32_t, std::string> names_by_type = {
    {1, "Win.Virus.Test"},       {2, "Win.Adware.Test"},   {3, "PUA.Win.Test"},
    {4, "Win.Backdoor.Test"},    {5, "Test.Bomb"},         {6, "Dos.Boot.Test"},
    {7, "Unix.DDoS.Test"},       {8, "Win.Dialer.Test"},   {9, "Win.Downloader.Test"},
    {10, "Win.Exploit.Test"},    {12, "Win.Joke.Test"},    {13, "Doc.Macro.Test"},
    {14, "Win.MassMailer.Test"}, {16, "Win.Worm.Test"},    {17, "Win.P2PWorm.Test"},
    {18, "Win.Proxy.Test"},      {19, "Win.Stealer.Test"}, {20, "Doc.RemoteTemplate.Test"},
    {21, "Email.Phishing.Test"}, {22, "Win.Spyware.Test"}, {23, "Win.Tool.Test"},
    {24, "Win.Trojan.Test"},     {27, "Win.Packer.Test"},
};

TEST_F(ClamavEngine, IgnoreMaskDropsItsTypesAndNoOthers) {
  std::string signatures;
  for (const auto& [type, name] : names_by_type) {
    signatures += signature(name, "content of " + name);
  }
  write_file(database_ / "types.ndb", signatures);
  start();
  const VSEHANDLE handle = make_handle();
  ASSERT_NE(handle, nullptr);
  for (const auto& [type, name] : names_by_type) {
    const std::uint64_t bit = std::uint64_t{1} << type;
    const fs::path plain = file("plain", "content of " + name);
    const fs::path zipped = file("zipped", zip_with({{"member", "content of " + name}}));
    events.clear();
    EXPECT_EQ(ignore_types(handle, bit), VSE_OK);
    EXPECT_EQ(scan_path(handle, plain), VSE_SCAN_CLEAN) << name;
    EXPECT_EQ(scan_path(handle, zipped), VSE_SCAN_CLEAN) << name;
    EXPECT_THAT(events, IsEmpty()) << name;
    EXPECT_EQ(ignore_types(handle, ~bit), VSE_OK);
    EXPECT_EQ(scan_path(handle, plain), VSE_SCAN_DETECTED) << name;
    EXPECT_EQ(scan_path(handle, zipped), VSE_SCAN_DETECTED) << name;
    ASSERT_EQ(events.size(), 2U) << name;
    EXPECT_EQ(events[1].type, type) << name;
  }
}

TEST_F(ClamavEngine, IgnoredMemberDoesNotHideTheNext) {
  write_file(database_ / "adware.ndb", signature("Win.Adware.Test", "advertisement"));
  start();
  const VSEHANDLE handle = make_handle();
  EXPECT_EQ(ignore_types(handle, 1U << 2U), VSE_OK);
  const Member adware{"first", "advertisement"};
  const Member bad{"second", test_file_content()};
  EXPECT_EQ(scan_path(handle, file("both.zip", zip_with({adware, bad, adware}))),
            VSE_SCAN_DETECTED);
  ASSERT_EQ(events.size(), 1U);
  EXPECT_EQ(events[0].name, "Test-File");
  EXPECT_EQ(events[0].archive, "second");
  EXPECT_EQ(scan_path(handle, file("one.zip", zip_with({adware, adware}))), VSE_SCAN_CLEAN);
}

TEST_F(ClamavEngine, ScanAfterADetectionKeepsNothingOfIt) {
  start();
  const VSEHANDLE handle = make_handle();
  EXPECT_EQ(scan_path(handle, file("bad.zip", zip_with({{"member", test_file_content()}}))),
            VSE_SCAN_DETECTED);
  EXPECT_EQ(scan_path(handle, clean_), VSE_SCAN_CLEAN);
  std::array<char, 64> text{};
  EXPECT_EQ(vseGet(handle, VSE_PROP_ARCHIVE_NAME, 0, text.data(), text.size(), 0), VSE_OK);
  EXPECT_STREQ(text.data(), "");
  EXPECT_EQ(get_number(handle, VSE_PROP_DETECTION_TYPE), 0U);
}

}  // namespace
}  // namespace engine_test
