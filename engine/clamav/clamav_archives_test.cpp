// SPDX-License-Identifier: GPL-2.0-only
// What is in a file: archives and their depth, what may be unpacked, the names of members.
#include <atomic>
#include <functional>
#include <thread>

#include "archives_fixture.h"
#include "engine_fixture.h"

namespace engine_test {
namespace {

using testing::IsEmpty;

constexpr const char* bomb_name = "Heuristics.Bomb.DecompressLimit";

using Packer = std::function<std::string(const std::string& name, const std::string& content)>;

std::string zipped(const std::string& name, const std::string& content) {
  return zip_with({{name, content}});
}
std::string tar_gzipped(const std::string& name, const std::string& content) {
  return gzip_of(tar_with({{name, content}}));
}
std::string seven_zipped(const std::string& name, const std::string& content) {
  return seven_zip_with({name, content});
}

/// `content` in so many archives, one in another.
std::string packed(std::uint32_t times, const Packer& pack, std::string content) {
  for (std::uint32_t i = 0; i < times; ++i) {
    content = pack("member" + std::to_string(i), content);
  }
  return content;
}

/// A mail with one attachment.
std::string mail_with(const std::string& attachment) {
  return "From: a@example.org\r\nTo: b@example.org\r\nSubject: test\r\nMIME-Version: 1.0\r\n"
         "Content-Type: multipart/mixed; boundary=\"part\"\r\n\r\n--part\r\n"
         "Content-Type: text/plain\r\n\r\nhello\r\n--part\r\n"
         "Content-Type: application/octet-stream; name=\"attached.bin\"\r\n"
         "Content-Transfer-Encoding: base64\r\n"
         "Content-Disposition: attachment; filename=\"attached.bin\"\r\n\r\n" +
         output_of("base64", attachment) + "\r\n--part--\r\n";
}

/// Scans with limits of their own for each scan.
class ClamavArchives : public ClamavEngine {
 protected:
  int scan(const std::string& content, std::uint32_t depth, std::uint32_t limit = 0) {
    EXPECT_EQ(set_number(handle_, VSE_PROP_MAX_ARCHIVE_DEPTH, depth), VSE_OK);
    EXPECT_EQ(set_number(handle_, VSE_PROP_DECOMPRESS, limit, VSE_DECOMPRESS_LIMIT), VSE_OK);
    return ClamavEngine::scan(content);
  }

  /// A scan that finds nothing, for this reason.
  void expect_clean(vse_scan_result reason, const std::string& content, std::uint32_t depth,
                    std::uint32_t limit = 0) {
    EXPECT_EQ(scan(content, depth, limit), VSE_SCAN_CLEAN);
    EXPECT_EQ(result(), reason);
    EXPECT_THAT(events, IsEmpty());
  }

  /// A scan that finds something, in this member.
  void expect_found_in(const std::string& member, const std::string& content, std::uint32_t depth,
                       std::uint32_t limit = 0) {
    EXPECT_EQ(scan(content, depth, limit), VSE_SCAN_DETECTED) << member;
    EXPECT_EQ(events.size(), 1U) << member;
    EXPECT_EQ(event().archive, member);
  }

  /// A scan that finds something of this name.
  void expect_found(const std::string& name, const std::string& content, std::uint32_t depth,
                    std::uint32_t limit = 0) {
    EXPECT_EQ(scan(content, depth, limit), VSE_SCAN_DETECTED) << name;
    EXPECT_EQ(events.size(), 1U) << name;
    EXPECT_EQ(event().name, name);
  }

  const std::string bad_content_ = standard_test_file();
};

// ---- Archive depth ------------------------------------------------------------------------------

TEST_F(ClamavArchives, DepthIsTheNumberOfArchivesLookedInto) {
  for (const Packer& pack : {Packer(zipped), Packer(tar_gzipped), Packer(seven_zipped)}) {
    for (std::uint32_t archives = 0; archives <= 5; ++archives) {
      const std::string content = packed(archives, pack, bad_content_);
      for (std::uint32_t depth = 0; depth <= 5; ++depth) {
        SCOPED_TRACE(testing::Message() << archives << " archives at depth " << depth);
        if (archives <= depth) {
          expect_found("Test-File", content, depth);
        } else {
          expect_clean(VSE_RESULT_MAX_ARCHIVE_DEPTH, content, depth);
        }
      }
    }
  }
}

TEST_F(ClamavArchives, IsFoundFromItsDepthOnUnderItsName) {
  const Member bad{"bad", bad_content_};
  const std::string zip = zipped("bad", bad_content_);
  const std::string tar = tar_with({bad});
  const Member deep{"deep.zip", zip};
  const std::string program = "MZ" + std::string(200, '\0') + zip;
  const auto word = [](const Member& member) {
    return zip_with({{"[Content_Types].xml", "<Types/>"}, {"word/" + member.name, member.content}});
  };
  const auto typed = [](const char* type, const Member& member) {
    return zip_with({{"mimetype", type}, member});
  };
  constexpr const char* text = "application/vnd.oasis.opendocument.text";
  constexpr const char* book = "application/epub+zip";
  struct Row {
    std::uint32_t depth;
    std::string content;
    std::string member;
  };
  for (const Row& row : {
           Row{0, bad_content_, ""},
           // Formats count together; compression and the tar in it are one.
           {3, zipped("a", tar_gzipped("b", seven_zipped("c", bad_content_))), "a/b/c"},
           {1, output_of("xz", bad_content_), ""},
           {1, output_of("bzip2", bad_content_), ""},
           {1, output_of("gzip", bad_content_), ""},
           {1, gzip_of(bad_content_), ""},
           {2, gzip_of(gzip_of(bad_content_)), ""},
           {1, gzip_of(tar), "bad"},
           {2, tar_with({{"bad.tar", tar}}), "bad.tar/bad"},
           {2, zipped("bad.tar.gz", gzip_of(tar)), "bad.tar.gz/bad"},
           // An archive after a program counts, the program does not.
           {1, program, "bad"},
           {2, zipped("program.exe", program), "program.exe/bad"},
           // Mails and documents are no archives.
           {0, mail_with(bad_content_), "attached.bin"},
           {1, mail_with(zip), "attached.bin/bad"},
           {0, word(bad), "bad"},
           {1, word(deep), "deep.zip/bad"},
           {0, typed(text, bad), "bad"},
           {1, typed(text, deep), "deep.zip/bad"},
           {0, typed(book, bad), "bad"},
           {1, typed(book, deep), "deep.zip/bad"},
           {1, typed("text/plain", bad), "bad"},
           // One that lies too deep hides no other member.
           {1, zip_with({deep, bad, deep}), "bad"},
           // The way to a member, whatever is beside it.
           {1, zip_with({{"good.txt", "harmless"}, {"bad.txt", bad_content_}}), "bad.txt"},
           {1, tar_with({{"good", "harmless"}, {"dir/bad.txt", bad_content_}}), "dir/bad.txt"},
           {1, seven_zipped("bad.txt", bad_content_), "bad.txt"},
           {1, zipped("a \"<&>\n'b", bad_content_), "a \"<&>\n'b"},
       }) {
    SCOPED_TRACE(row.member);
    if (row.depth > 0) {
      expect_clean(VSE_RESULT_MAX_ARCHIVE_DEPTH, row.content, row.depth - 1);
    }
    expect_found_in(row.member, row.content, row.depth);
    EXPECT_EQ(event().object, (root_ / "scanned").string());
  }
}

TEST_F(ClamavArchives, ArchiveInAnArchiveThatIsNotLookedIntoIsNotMatched) {
  const std::string inner = zipped("harmless", "nothing here");
  const std::string program = "MZ" + std::string(200, '\0') + zipped("inner.zip", inner);
  add_database("inner.ndb", signature("Test.Inner-Archive", inner));
  expect_clean(VSE_RESULT_MAX_ARCHIVE_DEPTH, program, 0);
  expect_found("Test.Inner-Archive", program, 1);
}

TEST_F(ClamavArchives, ArchiveTooDeepToBeLookedIntoIsMatchedAsAFile) {
  const std::string inner = zip_with({{"harmless", "nothing here"}, {"more", "nothing either"}});
  const std::string outer = zipped("inner.zip", inner);
  add_database("inner.ndb", signature("Test.Inner-Archive", inner) +
                                signature("Win.Adware.Test", inner.substr(0, 40)));
  expect_found_in("", inner, 0);
  for (const std::uint32_t depth : {1U, 2U, 5U}) {
    expect_found_in("inner.zip", zip_with({{"first", "a"}, {"inner.zip", inner}}), depth);
  }
  // The ignored match of an unopened archive hides neither its other match nor the next member's.
  EXPECT_EQ(ignore_types(handle_, 1U << 2U), VSE_OK);
  expect_found("Test.Inner-Archive", outer, 1);
  EXPECT_EQ(ignore_types(handle_, 1U << 1U), VSE_OK);
  expect_found("Win.Adware.Test", outer, 1);
  EXPECT_EQ(ignore_types(handle_, (1U << 2U) | (1U << 1U)), VSE_OK);
  EXPECT_EQ(scan(outer, 1), VSE_SCAN_CLEAN);
}

TEST_F(ClamavArchives, LimitsHoldForTheHandlesOwnScansOnly) {
  const fs::path nested = file("nested", packed(3, zipped, bad_content_));
  const fs::path large =
      file("large", zip_with({{"big", std::string(2 * mebibyte, 'x')}, {"bad", bad_content_}}));
  std::atomic<int> wrong{0};
  const auto work = [&](std::uint32_t depth, std::uint32_t limit) {
    const VSEHANDLE handle = make_handle();
    (void)set_number(handle, VSE_PROP_MAX_ARCHIVE_DEPTH, depth);
    (void)set_number(handle, VSE_PROP_DECOMPRESS, limit, VSE_DECOMPRESS_LIMIT);
    for (int i = 0; i < 10; ++i) {
      wrong += scan_path(handle, nested) != (depth < 3 ? VSE_SCAN_CLEAN : VSE_SCAN_DETECTED);
      wrong += scan_path(handle, large) != (limit == 1 ? VSE_SCAN_CLEAN : VSE_SCAN_DETECTED);
    }
  };
  std::vector<std::jthread> threads;
  threads.emplace_back(work, 2, 0);
  threads.emplace_back(work, 3, 1);
  threads.emplace_back(work, 5, 4);
  threads.clear();
  EXPECT_EQ(wrong, 0);
  EXPECT_EQ(engines_made, 1);
}

// ---- Unpacking ----------------------------------------------------------------------------------

TEST_F(ClamavArchives, DecompressionLimitIsInMebibytesUnpackedFromTheFile) {
  const std::string filler(mebibyte, 'x');
  const std::string content =
      zip_with({{"a", filler}, {"b", filler}, {"c", filler}, {"bad", bad_content_}});
  expect_clean(VSE_RESULT_NOT_SCANNED, content, 2, 2);
  expect_clean(VSE_RESULT_NOT_SCANNED, content, 2, 3);
  for (const std::uint32_t limit : {4U, 0U, 0x7FFFFFFFU}) {
    expect_found_in("bad", content, 2, limit);
  }
  // What is found before the limit counts, and what is in the file as it is.
  expect_found_in("bad", zip_with({{"bad", bad_content_}, {"a", filler}, {"b", filler}}), 2, 1);
  expect_found_in("", bad_content_ + std::string(3 * mebibyte, ' '), 2, 1);
}

TEST_F(ClamavArchives, FileBeyondTheDecompressionLimitIsMatchedAsAFile) {
  const std::string content = zipped("big", std::string(2 * mebibyte, 'x'));
  add_database("outer.ndb", signature("Test.Outer", content.substr(0, 60)));
  expect_found("Test.Outer", content, 2, 1);
  EXPECT_EQ(event().archive, "");
}

TEST_F(ClamavArchives, BombIsADetectionWhereALimitIsSetAndBombsAreNotIgnored) {
  const std::string bomb = zip_of_zeros("zeros", 3 * mebibyte);
  const std::string nested = zip_with({{"1", bomb}, {"2", bomb}, {"3", bomb}});
  for (const std::string& content : {bomb, nested}) {
    EXPECT_EQ(ignore_types(handle_, 0), VSE_OK);
    expect_found(bomb_name, content, 2, 1);
    EXPECT_EQ(event().type, 5U);
    EXPECT_EQ(event().accuracy, VSE_ACCURACY_HEURISTIC);
    EXPECT_EQ(ignore_types(handle_, 1U << 5U), VSE_OK);
    expect_clean(VSE_RESULT_NOT_SCANNED, content, 2, 1);
    EXPECT_EQ(ignore_types(handle_, 0), VSE_OK);
    expect_clean(VSE_RESULT_NOTHING_FOUND, content, 2, 100);
    expect_clean(VSE_RESULT_NOTHING_FOUND, content, 2, 0);
    EXPECT_EQ(scan(content, 0, 1), VSE_SCAN_CLEAN) << "nothing is unpacked at depth 0";
  }
  // What is in it comes before the bomb.
  expect_found("Test-File", zip_with({{"bad", bad_content_}, {"bomb", bomb}}), 2, 1);
}

// libclamav passes over parts that are longer than a limit of its own, however they are packed.
TEST_F(ClamavArchives, PartTooLargeForLibclamavCountsAgainstTheLimitAndHidesNoOtherMember) {
  const std::size_t size = 101 * mebibyte;
  const Member large{"large.gz", gzip_of_zeros(size)};
  const std::string xz = output_of("xz -0", std::string(size, '\0'));
  for (const std::string& bomb : {large.content, xz, zip_with({{"a", "a"}, large})}) {
    expect_found(bomb_name, bomb, 3, 10);
    for (const std::uint32_t limit : {200U, 0U}) {
      expect_clean(VSE_RESULT_NOT_SCANNED, bomb, 3, limit);
    }
  }
  expect_found(bomb_name, zip_of_zeros("zeros", size), 3, 10);
  for (const std::uint32_t limit : {200U, 0U}) {
    expect_found_in("bad", zip_with({large, {"bad", bad_content_}}), 3, limit);
  }
}

// The gzip file is many times smaller than what is in the zip file in it, which is not much more
// than that zip file.
TEST_F(ClamavArchives, BombMayGrowLittleAtEachLevel) {
  const std::string packed = zip_of_zeros("zeros", 3 * mebibyte);
  const std::string padded = packed + std::string(40'000, '\0');
  expect_found(bomb_name, output_of("gzip -9", padded), 2, 1);
  EXPECT_EQ(scan(padded, 2, 1), VSE_SCAN_CLEAN) << "not in one level";
}

// libclamav itself waits with these until it knows of nothing worse.
TEST_F(ClamavArchives, PossibleDetectionsCountLikeOthers) {
  write_file(database_ / "unwanted.ndu", signature("PUA.Unix.Tool.Scanner", "looks for hosts"));
  add_database("guess.ndb", signature("Heuristics.Trojan.Guess", "guess me"));
  const Member filler{"filler", std::string(mebibyte, 'x')};
  const std::map<std::string, std::string> names = {{"guess me", "Heuristics.Trojan.Guess"},
                                                    {"looks for hosts", "PUA.Unix.Tool.Scanner"}};
  for (const auto& [content, name] : names) {
    expect_found(name, content, 0);
    EXPECT_EQ(event().type, content == "guess me" ? 24U : 3U);
    EXPECT_EQ(event().accuracy,
              content == "guess me" ? VSE_ACCURACY_HEURISTIC : VSE_ACCURACY_EXACT);
    expect_found_in("in.zip/m.txt", zipped("in.zip", zipped("m.txt", content)), 2);
    EXPECT_EQ(event().name, name);
    // Before the decompression limit.
    expect_found(name, zip_with({{"m.txt", content}, filler, filler, filler}), 1, 2);
  }
  EXPECT_EQ(ignore_types(handle_, 1U << 3U), VSE_OK);
  EXPECT_EQ(scan("looks for hosts", 0), VSE_SCAN_CLEAN);
  expect_found("Heuristics.Trojan.Guess", zip_with({{"a", "looks for hosts"}, {"b", "guess me"}}),
               1);
  expect_found_in("b", zip_with({{"a", "looks for hosts"}, {"b", bad_content_}}), 1);
}

TEST_F(ClamavArchives, WithoutALimitBombsEndAtLibclamavsOwn) {
  const Member bomb{"bomb", gzip_of_zeros(200 * mebibyte)};
  expect_clean(VSE_RESULT_NOT_SCANNED, zip_with({bomb, bomb, bomb, bomb, bomb}), 5);
}

TEST_F(ClamavArchives, EncryptedMembersAreNoDetectionAndHideNone) {
  const Member secret{"secret", "twelve bytes and whatever follows", true};
  const Member deep{"in.zip", zipped("plain", "nothing")};
  expect_clean(VSE_RESULT_ENCRYPTED, zip_with({secret}), 2);
  expect_found_in("bad", zip_with({secret, {"bad", bad_content_}, secret}), 2);
  expect_clean(VSE_RESULT_NOTHING_FOUND, zipped("plain", "nothing"), 2);
  expect_clean(VSE_RESULT_ENCRYPTED, zip_with({secret, deep}), 1);  // rather than too deep
}

TEST_F(ClamavArchives, DamagedArchivesAreNoDetections) {
  for (const Packer& pack : {Packer(zipped), Packer(tar_gzipped), Packer(seven_zipped)}) {
    const std::string whole = packed(2, pack, std::string(300, 'x'));
    for (std::size_t size = 8; size < whole.size(); size += 23) {
      EXPECT_THAT(scan(whole.substr(0, size), 5), testing::AnyOf(VSE_SCAN_CLEAN, IsScanError()));
      std::string changed = whole;
      changed[size] = static_cast<char>(~changed[size]);
      EXPECT_THAT(scan(changed, 5), testing::AnyOf(VSE_SCAN_CLEAN, IsScanError()));
    }
  }
  EXPECT_THAT(events, IsEmpty());
}

// ---- Names --------------------------------------------------------------------------------------

TEST_F(ClamavArchives, PartWithoutANameDoesNotGetThatOfATemporaryFile) {
  const std::string page = "<html><body><img src=\"data:image/png;base64," +
                           output_of("base64 -w0", bad_content_) + "\"></body></html>";
  expect_found_in("page.html/textportion", zipped("page.html", page), 9);
}

TEST_F(ClamavArchives, LongNamesAreCut) {
  const std::string name(250, 'n');
  const Packer pack = [&](const std::string&, const std::string& inner) {
    return zipped(name, inner);
  };
  EXPECT_EQ(scan(packed(6, pack, bad_content_), 9), VSE_SCAN_DETECTED);
  EXPECT_EQ(event().archive.substr(0, 502), name + "/" + name + "/");
  EXPECT_EQ(event().archive.size(), 1023U);
}

TEST_F(ClamavArchives, MatchInTheFileItselfAfterItsMembersNamesNoMember) {
  add_database("whole.ndb", "Test.Whole:0:*:" + hex("at the very end") + "\n");
  expect_found_in("", zipped("good", "harmless") + "at the very end", 9);
}

}  // namespace
}  // namespace engine_test
