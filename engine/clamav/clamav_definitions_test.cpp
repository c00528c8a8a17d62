// SPDX-License-Identifier: GPL-2.0-only
// What a database directory may hold, through the engine's public calls.
#include <sys/stat.h>
#include <unistd.h>

#include "archives_fixture.h"
#include "engine_fixture.h"

namespace engine_test {
namespace {

constexpr const char* wanted_content = "the content that every format finds";

/// The digest of a text as hexadecimal text, by the program of that name.
std::string digest(const std::string& program, const std::string& text) {
  const std::string line = output_of(program, text);
  return line.substr(0, line.find(' '));
}

class ClamavDefinitions : public ClamavEngine {
 protected:
  ClamavDefinitions() : wanted_(file("wanted", wanted_content)) {}

  /// Whether the database as it is now loads.
  bool loads(unsigned int flags = VSE_INIT_BASE) {
    start();
    return make_handle(database_, flags) != nullptr;
  }

  fs::path wanted_;
};

/// Definitions that find wanted_content in one format, with what may stand before them.
struct Format {
  std::string what;
  std::string name;  ///< of the detection
  std::string text;
  std::string own_name = {};  ///< under which libclamav itself knows the format
};

TEST_F(ClamavDefinitions, FormatOfAFamilysFileIsToldByItsContentAndNoDescriptorStaysOpen) {
  const std::size_t descriptors = open_descriptors();
  const std::string size = std::to_string(std::string(wanted_content).size());
  const std::string sha = digest("sha256sum", wanted_content);
  const std::string logical =
      "Test.Logic;Engine:51-255,Target:0;0&1;" + hex("the content") + ";" + hex("finds") + "\n";
  const std::string hex_line = signature("Test.Hex", wanted_content);
  const std::string rule = yara_rule("test", "every format");
  const std::string member = zip_with({{"member", wanted_content}});
  for (const Format& format : {
           Format{"md5", "Md5", digest("md5sum", wanted_content) + ":" + size + ":Md5\n", "a.hdb"},
           Format{"sha1", "Sha1", digest("sha1sum", wanted_content) + ":" + size + ":Sha1\n",
                  "a.hsb"},
           Format{"sha256", "Sha256", sha + ":" + size + ":Sha256\n", "a.hsb"},
           Format{"sha256 of any size", "Sha256", sha + ":*:Sha256:73\n"},
           Format{"hex", "Test.Hex", hex_line, "a.ndb"},
           Format{"hex anywhere", "Hex", "Hex:0:*:" + hex("every format") + ":51:255\n"},
           Format{"hex after comments", "Test.Hex", "# one\n#two\n" + hex_line},
           Format{"hex with DOS line ends", "Hex", "Hex:0:0:" + hex(wanted_content) + "\r\n"},
           Format{"hex without a line end", "Hex", "Hex:0:0:" + hex(wanted_content)},
           Format{"logical", "Test.Logic", logical, "a.ldb"},
           Format{"yara", "YARA.test", rule, "a.yara"},
           Format{"private yara", "YARA.test", "private rule a { condition: true }\n" + rule},
           Format{"yara after comments", "YARA.test", "/* rule\n  in: a:b */\n// rule\n\n" + rule},
       }) {
    for (const std::string& name :
         {std::string("antivir.def"), std::string("aivsecon.def"), format.own_name}) {
      if (name.empty()) {
        continue;
      }
      SCOPED_TRACE(format.what + " " + name);
      add_database(name, format.text);
      for (const std::string& content : {std::string(wanted_content), member}) {
        EXPECT_EQ(scan(content), VSE_SCAN_DETECTED);
        EXPECT_EQ(event().name, format.name);
        EXPECT_EQ(event().accuracy, VSE_ACCURACY_EXACT);
        EXPECT_EQ(event().archive, content == wanted_content ? "" : "member");
      }
      EXPECT_EQ(scan_path(handle_, bad_), VSE_SCAN_DETECTED) << "the other databases count too";
      EXPECT_EQ(scan_path(handle_, clean_), VSE_SCAN_CLEAN);
      EXPECT_EQ(open_descriptors(), descriptors);
      fs::remove(database_ / name);
    }
  }
}

TEST_F(ClamavDefinitions, EachFamilyHasItsOwnFilesAndEngineAndOtherFlagsAreRefused) {
  const std::map<unsigned int, std::vector<std::string>> families = {
      {v1, {"antivir.def", "aivsecon.def"}},
      {v2, {"antivir-v2.def", "aivsecon-v2.def"}},
      {v2s, {"antivir-v2s.def", "aivsecon-v2s.def"}}};
  fs::remove(database_ / "test.ndb");
  for (const auto& [flags, names] : families) {
    EXPECT_FALSE(loads(flags)) << "the directory has nothing for that family";
    for (const std::string& name : names) {
      write_file(database_ / name, signature("Test", "only in " + name));
    }
  }
  start();
  for (const auto& [flags, own] : families) {
    const VSEHANDLE handle = make_handle(database_, flags);
    ASSERT_NE(make_handle(database_, flags), nullptr);
    for (const auto& [other_flags, names] : families) {
      for (const std::string& name : names) {
        EXPECT_EQ(scan_path(handle, file("f", "only in " + name)),
                  flags == other_flags ? VSE_SCAN_DETECTED : VSE_SCAN_CLEAN)
            << flags << " " << name;
      }
    }
  }
  EXPECT_EQ(engines_made, 3);
  for (const unsigned int flags : {0U, 1U, 3U, 12U, 16U, 30U, ~0U}) {
    EXPECT_EQ(make_handle(database_, flags), nullptr) << flags;
  }
}

TEST_F(ClamavDefinitions, FamilyFileInNoKnownFormatFailsInitialisation) {
  const std::vector<std::string> taken = {
      "1024:" + digest("md5sum", wanted_content) + ":Section.Md5\n",
      "1024:" + digest("sha256sum", wanted_content) + ":Section.Sha\n",
  };
  const std::vector<std::string> refused = {
      "",
      "# nothing but a comment\n",
      "no signature\n",
      "one:two\n",
      "a:b:c:d\n",
      "/* a comment without an end",
      "rule\n",
      "0123456789abcdef0123456789abcde:10:Md5.Too.Short\n",
      "ClamAV-VDB:01 Jan 2024 00-00 +0000:1:1:90:x:y:z:0",
      "ClamAV-VDB:01 Jan 2024 00-00 +0000:1:1:90:" + std::string(32, 'a') + ":y:z:0" +
          std::string(600, ' '),
      signature("Good", wanted_content) + "and then no signature\n",
      std::string(70000, '\n') + signature("Too.Far", wanted_content),
      std::string(4096, '\0'),
  };
  for (const std::string& text : taken) {
    write_file(database_ / "antivir.def", text);
    EXPECT_TRUE(loads()) << text;
  }
  for (const std::string& text : refused) {
    write_file(database_ / "antivir.def", text);
    testing::internal::CaptureStderr();
    EXPECT_FALSE(loads()) << text.substr(0, 60);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_TRUE(loads(v2));
  }
  fs::remove(database_ / "antivir.def");
  EXPECT_TRUE(loads());
}

/// A container with one hex signature for wanted_content, as libclamav takes it where it asks for
/// no signature of the whole.
std::string unsigned_container() {
  std::string header = "ClamAV-VDB:01 Jan 2024 00-00 +0000:1:1:90:X:X:builder:1704067200";
  const Member inside{"inside.ndb", signature("Test", wanted_content)};
  const std::string size = std::to_string(inside.content.size());
  const Member list{"inside.info", header + "\ninside.ndb:" + size + ":" +
                                       digest("sha256sum", inside.content) + "\n"};
  header.resize(512, ' ');
  return header + gzip_of(tar_with({list, inside}));
}

TEST_F(ClamavDefinitions, ContainerWithoutASignatureIsRefused) {
  add_database("unsigned.cud", unsigned_container());
  EXPECT_EQ(scan_path(handle_, wanted_), VSE_SCAN_DETECTED) << "nothing else is wrong with it";
  fs::rename(database_ / "unsigned.cud", database_ / "antivir.def");
  EXPECT_FALSE(loads());
}

TEST_F(ClamavDefinitions, WhatIsNoFileFailsOnlyUnderADatabasesName) {
  const std::vector<std::function<void(const fs::path&)>> kinds = {
      [](const fs::path& path) { EXPECT_EQ(mkfifo(path.c_str(), 0600), 0); },
      [](const fs::path& path) { fs::create_symlink("nowhere", path); },
      [](const fs::path& path) { fs::create_directory(path); },
  };
  fs::create_directories(database_ / "folder.old" / "x.ndb");
  write_file(database_ / "notes", "no signature\n");
  for (const std::string name : {"notes2", "daily.cvd", "x.ldb", "antivir.def"}) {
    for (const auto& make : kinds) {
      make(database_ / name);
      EXPECT_EQ(loads(), name == "notes2") << name;
      fs::remove(database_ / name);
    }
  }
}

TEST_F(ClamavDefinitions, LinksAreFollowedAndWhatIsReplacedByAnotherNameIsLookedForAgain) {
  write_file(root_ / "elsewhere", signature("Test", wanted_content));
  fs::create_symlink(root_ / "elsewhere", database_ / "daily.ndb");
  at_next_link = [this] {
    for (const char* name : {"daily", "test"}) {
      fs::rename(database_ / (std::string(name) + ".ndb"),
                 database_ / (std::string(name) + "-new.ndb"));
    }
  };
  reopen();
  EXPECT_FALSE(at_next_link);
  EXPECT_EQ(scan_path(handle_, wanted_), VSE_SCAN_DETECTED);
  EXPECT_EQ(scan_path(handle_, bad_), VSE_SCAN_DETECTED);
}

}  // namespace
}  // namespace engine_test
