// SPDX-License-Identifier: GPL-2.0-only
// What a database directory may hold, through the engine's public calls.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vse.h>

#include <cstdlib>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "engine_fixture.h"

namespace engine_test {
namespace {

constexpr const char* kContent = "the content that every format finds";

/// A file's digest as hexadecimal text, by the program of that name.
std::string digest(const std::string& program, const fs::path& path) {
  const std::string line = output_of(program, read_file(path));
  return line.substr(0, line.find(' '));
}

class ClamavDefinitions : public ClamavEngine {
 protected:
  ClamavDefinitions() : wanted_(file("wanted", kContent)) {}

  /// Definitions that find kContent in one format, with what may stand before them.
  struct Format {
    std::string what;
    std::string text;
    std::string own_name = {};  ///< under which libclamav itself knows the format
  };

  std::vector<Format> all_formats() const {
    const std::string size = std::to_string(std::string(kContent).size());
    const std::string sha = digest("sha256sum", wanted_);
    const std::string logical =
        "Logical;Engine:51-255,Target:0;0&1;" + hex("the content") + ";" + hex("finds") + "\n";
    const std::string rule = yara_rule("test", "every format");
    return {
        {"md5", digest("md5sum", wanted_) + ":" + size + ":Test.Md5\n", "a.hdb"},
        {"sha1", digest("sha1sum", wanted_) + ":" + size + ":Test.Sha1\n", "a.hsb"},
        {"sha256", sha + ":" + size + ":Test.Sha256\n", "a.hsb"},
        {"sha256 of any size", sha + ":*:Test.Sha256:73\n"},
        {"hex", signature("Test.Hex", kContent), "a.ndb"},
        {"hex anywhere, with levels", "Test.Hex:0:*:" + hex("every format") + ":51:255\n"},
        {"hex after comments", "# one\n#two\n" + signature("Test.Hex", kContent)},
        {"hex with DOS line ends", "Test.Hex:0:0:" + hex(kContent) + "\r\n"},
        {"hex without a line end", "Test.Hex:0:0:" + hex(kContent)},
        {"logical", logical, "a.ldb"},
        {"yara", rule, "a.yara"},
        {"private yara", "private rule helper { condition: true }\n" + rule},
        {"yara after comments", "/* rule\n  in: a:comment */\n// rule\n\n" + rule},
    };
  }

  fs::path wanted_;
};

TEST_F(ClamavDefinitions, FormatOfAFamilysFileIsToldByItsContent) {
  start();
  for (const Format& format : all_formats()) {
    for (const std::string& name :
         {std::string("antivir.def"), std::string("aivsecon.def"), format.own_name}) {
      if (name.empty()) {
        continue;
      }
      write_file(database_ / name, format.text);
      restart();
      const VSEHANDLE handle = make_handle();
      ASSERT_NE(handle, nullptr) << format.what << " " << name;
      EXPECT_EQ(scan_path(handle, wanted_), VSE_SCAN_DETECTED) << format.what << " " << name;
      EXPECT_EQ(scan_path(handle, bad_), VSE_SCAN_DETECTED) << "the other databases count too";
      EXPECT_EQ(scan_path(handle, clean_), VSE_SCAN_CLEAN) << format.what;
      fs::remove(database_ / name);
    }
  }
}

TEST_F(ClamavDefinitions, HashesOfProgramSectionsAreTaken) {
  write_file(database_ / "antivir.def", "1024:" + digest("md5sum", wanted_) + ":Section.Md5\n");
  write_file(database_ / "aivsecon.def", "1024:" + digest("sha256sum", wanted_) + ":Section.Sha\n");
  start();
  EXPECT_NE(make_handle(), nullptr);
}

TEST_F(ClamavDefinitions, FamilyFilesAloneWillDo) {
  fs::remove(database_ / "test.ndb");
  write_file(database_ / "aivsecon.def", signature("Test", kContent));
  start();
  EXPECT_EQ(scan_path(make_handle(), wanted_), VSE_SCAN_DETECTED);
  EXPECT_EQ(make_handle(database_, kV2), nullptr) << "the directory has nothing for that family";
}

TEST_F(ClamavDefinitions, EachFamilyHasItsOwnFilesAndEngine) {
  const std::map<unsigned int, std::vector<std::string>> families = {
      {kV1, {"antivir.def", "aivsecon.def"}},
      {kV2, {"antivir-v2.def", "aivsecon-v2.def"}},
      {kV2s, {"antivir-v2s.def", "aivsecon-v2s.def"}}};
  for (const auto& [flags, names] : families) {
    for (const std::string& name : names) {
      write_file(database_ / name, signature("Test", "only in " + name));
    }
  }
  start();
  for (const auto& [flags, own] : families) {
    const VSEHANDLE handle = make_handle(database_, flags);
    ASSERT_NE(handle, nullptr);
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
}

TEST_F(ClamavDefinitions, OtherFlagsAreRefused) {
  start();
  for (const unsigned int flags : {0U, 1U, 3U, 12U, 16U, 30U, ~0U}) {
    EXPECT_EQ(make_handle(database_, flags), nullptr) << flags;
  }
}

TEST_F(ClamavDefinitions, FamilyFileInNoKnownFormatFailsInitialisation) {
  const std::vector<std::string> texts = {
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
      signature("Good", kContent) + "and then no signature\n",
      std::string(70000, '\n') + signature("Too.Far", kContent),
      std::string(4096, '\0'),
  };
  start();
  for (const std::string& text : texts) {
    write_file(database_ / "antivir.def", text);
    testing::internal::CaptureStderr();
    EXPECT_EQ(make_handle(), nullptr) << text.substr(0, 60);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_NE(make_handle(database_, kV2), nullptr);
    restart();
  }
  fs::remove(database_ / "antivir.def");
  restart();
  EXPECT_NE(make_handle(), nullptr);
}

/// A container with one hex signature for kContent, as libclamav takes it where it asks for no
/// signature of the whole.
std::string unsigned_container(const fs::path& folder) {
  constexpr const char* kHeader =
      "ClamAV-VDB:01 Jan 2024 00-00 +0000:1:1:90:X:X:builder:1704067200";
  const fs::path inside = folder / "inside.ndb";
  write_file(inside, signature("Test", kContent));
  write_file(folder / "inside.info", std::string(kHeader) +
                                         "\ninside.ndb:" + std::to_string(fs::file_size(inside)) +
                                         ":" + digest("sha256sum", inside) + "\n");
  const std::string command = "tar -C " + folder.string() + " --format=ustar -czf " +
                              (folder / "container").string() + " inside.info inside.ndb";
  EXPECT_EQ(std::system(command.c_str()), 0);
  std::string header = kHeader;
  header.resize(512, ' ');
  return header + read_file(folder / "container");
}

TEST_F(ClamavDefinitions, ContainerWithoutASignatureIsRefused) {
  const fs::path own_name = database_ / "unsigned.cud";
  write_file(own_name, unsigned_container(root_));
  start();
  EXPECT_EQ(scan_path(make_handle(), wanted_), VSE_SCAN_DETECTED)
      << "nothing else is wrong with it";
  fs::rename(own_name, database_ / "antivir.def");
  restart();
  EXPECT_EQ(make_handle(), nullptr);
}

TEST_F(ClamavDefinitions, WhatIsNoFileFailsOnlyUnderADatabasesName) {
  const auto loads_beside = [&](const char* name, bool pipe) {
    if (pipe) {
      EXPECT_EQ(mkfifo((database_ / name).c_str(), 0600), 0);
    } else {
      fs::create_symlink("nowhere", database_ / name);
    }
    restart();
    const bool loads = make_handle() != nullptr;
    fs::remove(database_ / name);
    return loads;
  };
  fs::create_directories(database_ / "folder.old" / "x.ndb");
  write_file(database_ / "notes", "no signature\n");
  start();
  for (const bool pipe : {true, false}) {
    EXPECT_TRUE(loads_beside("notes2", pipe));
    for (const char* name : {"daily.cvd", "x.ldb", "antivir.def"}) {
      EXPECT_FALSE(loads_beside(name, pipe)) << name;
    }
  }
}

TEST_F(ClamavDefinitions, DatabaseThatIsReplacedByAnotherNameIsLookedForAgain) {
  write_file(database_ / "daily.ndb", signature("Test", kContent));
  start();
  at_next_link = [this] {
    for (const char* name : {"daily", "test"}) {
      fs::rename(database_ / (std::string(name) + ".ndb"),
                 database_ / (std::string(name) + "-new.ndb"));
    }
  };
  const VSEHANDLE handle = make_handle();
  EXPECT_FALSE(at_next_link);
  ASSERT_NE(handle, nullptr);
  EXPECT_EQ(scan_path(handle, wanted_), VSE_SCAN_DETECTED);
  EXPECT_EQ(scan_path(handle, bad_), VSE_SCAN_DETECTED);
}

TEST_F(ClamavDefinitions, LinksToDatabasesAreFollowed) {
  fs::rename(database_ / "test.ndb", root_ / "elsewhere");
  fs::create_symlink(root_ / "elsewhere", database_ / "test.ndb");
  start();
  EXPECT_EQ(scan_path(make_handle(), bad_), VSE_SCAN_DETECTED);
}

TEST_F(ClamavDefinitions, LoadingLeavesNoDescriptorOpen) {
  write_file(database_ / "antivir.def", signature("Test", kContent));
  start();
  (void)make_handle();
  restart();
  const std::size_t before = open_descriptors();
  for (int i = 0; i < 5; ++i) {
    EXPECT_NE(make_handle(), nullptr);
    restart();
  }
  EXPECT_EQ(open_descriptors(), before);
}

}  // namespace
}  // namespace engine_test
