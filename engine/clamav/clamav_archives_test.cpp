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

constexpr std::uint64_t kIgnoreBombs = 1U << 5U;

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
std::string packed(int times, const Packer& pack, std::string content) {
  for (int i = 0; i < times; ++i) {
    content = pack("member" + std::to_string(i), content);
  }
  return content;
}

/// A mail with one attachment.
std::string mail_with(const std::string& attachment) {
  std::string encoded;
  for (const char c : attachment) {
    encoded += "=" + hex(std::string(1, c));
    encoded += encoded.size() % 76 > 70 ? "=\r\n" : "";
  }
  for (char& c : encoded) {
    c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  }
  return "From: a@example.org\r\nTo: b@example.org\r\nSubject: test\r\nMIME-Version: 1.0\r\n"
         "Content-Type: multipart/mixed; boundary=\"part\"\r\n\r\n--part\r\n"
         "Content-Type: text/plain\r\n\r\nhello\r\n--part\r\n"
         "Content-Type: application/octet-stream; name=\"attached.bin\"\r\n"
         "Content-Transfer-Encoding: quoted-printable\r\n"
         "Content-Disposition: attachment; filename=\"attached.bin\"\r\n\r\n" +
         encoded + "\r\n--part--\r\n";
}

/// Scans with limits of their own for each scan.
class ClamavArchives : public ClamavEngine {
 protected:
  void prepare() override {
    start();
    open();
  }

  /// A new handle, after the databases were changed.
  void open() {
    handle_ = make_handle();
    EXPECT_NE(handle_, nullptr);
  }

  int scan(const std::string& content, std::uint32_t depth, std::uint32_t limit = 0) {
    events.clear();
    const fs::path path = file("scanned", content);
    EXPECT_EQ(set_number(handle_, VSE_PROP_MAX_ARCHIVE_DEPTH, depth), VSE_OK);
    EXPECT_EQ(set_number(handle_, VSE_PROP_DECOMPRESS, limit, VSE_DECOMPRESS_LIMIT), VSE_OK);
    return scan_path(handle_, path);
  }

  /// The member that a scan finds the standard test file in.
  std::string found_in(const std::string& content) {
    EXPECT_EQ(scan(content, 9), VSE_SCAN_DETECTED);
    return event().archive;
  }

  /// The event of the last scan; without any text when there was none.
  static Event event() { return events.empty() ? Event{} : events.back(); }

  std::uint32_t result() const { return get_number(handle_, VSE_PROP_SCAN_RESULT); }

  VSEHANDLE handle_ = nullptr;
  const std::string bad_content_ = test_file_content();
};

// ---- Archive depth ------------------------------------------------------------------------------

TEST_F(ClamavArchives, DepthIsTheNumberOfArchivesLookedInto) {
  const std::map<std::string, Packer> formats = {
      {"zip", zipped}, {"tar.gz", tar_gzipped}, {"7z", seven_zipped}};
  for (const auto& [format, pack] : formats) {
    for (int archives = 0; archives <= 5; ++archives) {
      const std::string content = packed(archives, pack, bad_content_);
      for (int depth = 0; depth <= 5; ++depth) {
        const bool reached = archives <= depth;
        EXPECT_EQ(scan(content, static_cast<std::uint32_t>(depth)),
                  reached ? VSE_SCAN_DETECTED : VSE_SCAN_CLEAN)
            << archives << " of " << format << " at depth " << depth;
        EXPECT_EQ(result(), unsigned{reached ? VSE_RESULT_FOUND : VSE_RESULT_MAX_ARCHIVE_DEPTH});
        EXPECT_EQ(events.size(), reached ? 1U : 0U);
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
  constexpr const char* kText = "application/vnd.oasis.opendocument.text";
  constexpr const char* kBook = "application/epub+zip";
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
           {0, typed(kText, bad), "bad"},
           {1, typed(kText, deep), "deep.zip/bad"},
           {0, typed(kBook, bad), "bad"},
           {1, typed(kBook, deep), "deep.zip/bad"},
           {1, typed("text/plain", bad), "bad"},
           // One that lies too deep hides no other member.
           {1, zip_with({deep, bad, deep}), "bad"},
           // The way to a member, whatever is beside it.
           {1, zip_with({{"good.txt", "harmless"}, {"bad.txt", bad_content_}}), "bad.txt"},
           {1, tar_with({{"good", "harmless"}, {"dir/bad.txt", bad_content_}}), "dir/bad.txt"},
           {1, seven_zipped("bad.txt", bad_content_), "bad.txt"},
           {1, zipped("a \"<&>\n'b", bad_content_), "a \"<&>\n'b"},
       }) {
    if (row.depth > 0) {
      EXPECT_EQ(scan(row.content, row.depth - 1), VSE_SCAN_CLEAN) << row.member;
      EXPECT_EQ(result(), unsigned{VSE_RESULT_MAX_ARCHIVE_DEPTH}) << row.member;
    }
    EXPECT_EQ(scan(row.content, row.depth), VSE_SCAN_DETECTED) << row.member;
    EXPECT_EQ(event().archive, row.member);
    EXPECT_EQ(event().object, (root_ / "scanned").string());
  }
}

TEST_F(ClamavArchives, ArchiveInAnArchiveThatIsNotLookedIntoIsNotMatched) {
  const std::string inner = zipped("harmless", "nothing here");
  const std::string program = "MZ" + std::string(200, '\0') + zipped("inner.zip", inner);
  write_file(database_ / "inner.ndb", signature("Test.Inner-Archive", inner));
  restart();
  open();
  EXPECT_EQ(scan(program, 0), VSE_SCAN_CLEAN);
  EXPECT_EQ(scan(program, 1), VSE_SCAN_DETECTED);
}

TEST_F(ClamavArchives, ArchiveTooDeepToBeLookedIntoIsMatchedAsAFile) {
  const std::string inner = zip_with({{"harmless", "nothing here"}, {"more", "nothing either"}});
  write_file(database_ / "inner.ndb", signature("Test.Inner-Archive", inner));
  write_file(database_ / "adware.ndb", "Win.Adware.Test:0:0:" + hex(inner.substr(0, 40)) + "\n");
  const fs::path other = root_ / "other";
  fs::copy(database_, other);
  handle_ = make_handle(other);
  EXPECT_EQ(scan(inner, 0), VSE_SCAN_DETECTED);
  EXPECT_EQ(events.size(), 1U);
  EXPECT_EQ(event().archive, "");
  for (const std::uint32_t depth : {1U, 2U, 5U}) {
    EXPECT_EQ(scan(zip_with({{"first", "a"}, {"inner.zip", inner}}), depth), VSE_SCAN_DETECTED);
    EXPECT_EQ(events.size(), 1U);
    EXPECT_EQ(event().archive, "inner.zip");
  }
  // The ignored match of an unopened archive hides neither its other match nor the next member's.
  EXPECT_EQ(ignore_types(handle_, 1U << 2U), VSE_OK);
  EXPECT_EQ(scan(zipped("inner.zip", inner), 1), VSE_SCAN_DETECTED);
  EXPECT_EQ(event().name, "Test.Inner-Archive");
  EXPECT_EQ(ignore_types(handle_, 1U << 1U), VSE_OK);
  EXPECT_EQ(scan(zipped("inner.zip", inner), 1), VSE_SCAN_DETECTED);
  EXPECT_EQ(event().name, "Win.Adware.Test");
  EXPECT_EQ(ignore_types(handle_, (1U << 2U) | (1U << 1U)), VSE_OK);
  EXPECT_EQ(scan(zipped("inner.zip", inner), 1), VSE_SCAN_CLEAN);
}

TEST_F(ClamavArchives, LimitsHoldForTheHandlesOwnScansOnly) {
  const fs::path nested = file("nested", packed(3, zipped, bad_content_));
  const fs::path large =
      file("large", zip_with({{"big", std::string(2 * kMebibyte, 'x')}, {"bad", bad_content_}}));
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
  std::vector<std::thread> threads;
  threads.emplace_back(work, 2, 0);
  threads.emplace_back(work, 3, 1);
  threads.emplace_back(work, 5, 4);
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(wrong, 0);
  EXPECT_EQ(engines_compiled, 1);
}

// ---- Unpacking ----------------------------------------------------------------------------------

TEST_F(ClamavArchives, DecompressionLimitIsInMebibytesUnpackedFromTheFile) {
  const std::string filler(kMebibyte, 'x');
  const std::string content =
      zip_with({{"a", filler}, {"b", filler}, {"c", filler}, {"bad", bad_content_}});
  EXPECT_EQ(scan(content, 2, 2), VSE_SCAN_CLEAN);
  EXPECT_EQ(result(), unsigned{VSE_RESULT_NOT_SCANNED});
  EXPECT_EQ(scan(content, 2, 3), VSE_SCAN_CLEAN);
  EXPECT_EQ(scan(content, 2, 4), VSE_SCAN_DETECTED);
  EXPECT_EQ(scan(content, 2, 0), VSE_SCAN_DETECTED);
  EXPECT_EQ(scan(content, 2, 0x7FFFFFFF), VSE_SCAN_DETECTED);
  // What is found before the limit counts, and what is in the file as it is.
  EXPECT_EQ(scan(zip_with({{"bad", bad_content_}, {"a", filler}, {"b", filler}}), 2, 1),
            VSE_SCAN_DETECTED);
  EXPECT_EQ(scan(bad_content_ + std::string(3 * kMebibyte, ' '), 2, 1), VSE_SCAN_DETECTED);
}

TEST_F(ClamavArchives, FileBeyondTheDecompressionLimitIsMatchedAsAFile) {
  const std::string content = zip_with({{"big", std::string(2 * kMebibyte, 'x')}});
  write_file(database_ / "outer.ndb", signature("Test.Outer", content.substr(0, 60)));
  const fs::path other = root_ / "other";
  fs::copy(database_, other);
  handle_ = make_handle(other);
  EXPECT_EQ(scan(content, 2, 1), VSE_SCAN_DETECTED);
  EXPECT_EQ(events.size(), 1U);
  EXPECT_EQ(event().name, "Test.Outer");
  EXPECT_EQ(event().archive, "");
}

TEST_F(ClamavArchives, BombIsADetectionWhereALimitIsSetAndBombsAreNotIgnored) {
  const std::string bomb = zip_of_zeros("zeros", 3 * kMebibyte);
  const std::string nested = zip_with({{"1", bomb}, {"2", bomb}, {"3", bomb}});
  for (const std::string& content : {bomb, nested}) {
    EXPECT_EQ(ignore_types(handle_, 0), VSE_OK);
    EXPECT_EQ(scan(content, 2, 1), VSE_SCAN_DETECTED);
    EXPECT_EQ(events.size(), 1U);
    EXPECT_EQ(event().name, "Heuristics.Bomb.DecompressLimit");
    EXPECT_EQ(event().type, 5U);
    EXPECT_EQ(event().accuracy, unsigned{VSE_ACCURACY_HEURISTIC});
    EXPECT_EQ(ignore_types(handle_, kIgnoreBombs), VSE_OK);
    EXPECT_EQ(scan(content, 2, 1), VSE_SCAN_CLEAN);
    EXPECT_EQ(result(), unsigned{VSE_RESULT_NOT_SCANNED});
    EXPECT_EQ(ignore_types(handle_, 0), VSE_OK);
    EXPECT_EQ(scan(content, 2, 100), VSE_SCAN_CLEAN);
    EXPECT_EQ(scan(content, 2, 0), VSE_SCAN_CLEAN);
    EXPECT_EQ(scan(content, 0, 1), VSE_SCAN_CLEAN) << "nothing is unpacked at depth 0";
  }
}

// libclamav passes over parts that are longer than a limit of its own, however they are packed.
TEST_F(ClamavArchives, PartTooLargeForLibclamavCountsAgainstTheLimitToo) {
  const std::size_t size = 101 * kMebibyte;
  const std::string gzipped = gzip_of_zeros(size);
  const std::string xz = output_of("xz -0", std::string(size, '\0'));
  for (const std::string& bomb : {gzipped, xz, zip_with({{"a", "a"}, {"z.gz", gzipped}})}) {
    EXPECT_EQ(scan(bomb, 3, 10), VSE_SCAN_DETECTED);
    EXPECT_EQ(event().name, "Heuristics.Bomb.DecompressLimit");
    for (const std::uint32_t limit : {200U, 0U}) {
      EXPECT_EQ(scan(bomb, 3, limit), VSE_SCAN_CLEAN);
      EXPECT_EQ(result(), unsigned{VSE_RESULT_NOT_SCANNED});
    }
  }
  EXPECT_EQ(scan(zip_of_zeros("zeros", size), 3, 10), VSE_SCAN_DETECTED);
}

TEST_F(ClamavArchives, PartTooLargeForLibclamavHidesNoOtherMember) {
  const Member large{"large.gz", gzip_of_zeros(101 * kMebibyte)};
  const std::string content = zip_with({large, {"bad", bad_content_}});
  for (const std::uint32_t limit : {200U, 0U}) {
    EXPECT_EQ(scan(content, 3, limit), VSE_SCAN_DETECTED);
    EXPECT_EQ(event().archive, "bad");
  }
}

// The gzip file is many times smaller than what is in the zip file in it, which is not much more
// than that zip file.
TEST_F(ClamavArchives, BombMayGrowLittleAtEachLevel) {
  const std::string packed = zip_of_zeros("zeros", 3 * kMebibyte);
  const std::string padded = packed + std::string(packed.size(), '\0');
  const std::string bomb = output_of("gzip -9", padded);
  EXPECT_EQ(scan(bomb, 2, 1), VSE_SCAN_DETECTED);
  EXPECT_EQ(event().name, "Heuristics.Bomb.DecompressLimit");
  EXPECT_EQ(scan(padded, 2, 1), VSE_SCAN_CLEAN) << "not in one level";
}

TEST_F(ClamavArchives, WhatIsInABombComesBeforeTheBomb) {
  const std::string bomb = zip_of_zeros("zeros", 3 * kMebibyte);
  EXPECT_EQ(scan(zip_with({{"bad", bad_content_}, {"bomb", bomb}}), 2, 1), VSE_SCAN_DETECTED);
  EXPECT_EQ(event().name, "Test-File");
}

// libclamav itself waits with these until it knows of nothing worse.
TEST_F(ClamavArchives, PossibleDetectionsInAnArchiveCountLikeOthers) {
  write_file(database_ / "guess.ndb", signature("Heuristics.Trojan.Guess", "guess me"));
  write_file(database_ / "unwanted.ndu", signature("PUA.Unix.Tool.Scanner", "looks for hosts"));
  restart();
  open();
  const std::map<std::string, std::string> names = {{"guess me", "Heuristics.Trojan.Guess"},
                                                    {"looks for hosts", "PUA.Unix.Tool.Scanner"}};
  for (const auto& [content, name] : names) {
    EXPECT_EQ(found_in(zipped("in.zip", zipped("m.txt", content))), "in.zip/m.txt");
    EXPECT_EQ(event().name, name);
    const Member filler{"filler", std::string(kMebibyte, 'x')};
    EXPECT_EQ(scan(zip_with({{"m.txt", content}, filler, filler, filler}), 1, 2), VSE_SCAN_DETECTED)
        << "before the decompression limit";
    EXPECT_EQ(event().name, name);
  }
  EXPECT_EQ(ignore_types(handle_, 1U << 3U), VSE_OK);
  EXPECT_EQ(scan(zip_with({{"a", "looks for hosts"}, {"b", "guess me"}}), 1), VSE_SCAN_DETECTED);
  EXPECT_EQ(event().name, "Heuristics.Trojan.Guess");
  EXPECT_EQ(scan(zip_with({{"a", "looks for hosts"}, {"b", bad_content_}}), 1), VSE_SCAN_DETECTED);
  EXPECT_EQ(event().name, "Test-File");
}

TEST_F(ClamavArchives, WithoutALimitBombsEndAtLibclamavsOwn) {
  const std::string bomb = gzip_of_zeros(200 * kMebibyte);
  EXPECT_EQ(scan(zip_with({{"1", bomb}, {"2", bomb}, {"3", bomb}, {"4", bomb}, {"5", bomb}}), 5),
            VSE_SCAN_CLEAN);
  EXPECT_THAT(events, IsEmpty());
}

TEST_F(ClamavArchives, EncryptedMembersAreNoDetectionAndHideNone) {
  const Member secret{"secret", "twelve bytes and whatever follows", true};
  EXPECT_EQ(scan(zip_with({secret}), 2), VSE_SCAN_CLEAN);
  EXPECT_EQ(result(), unsigned{VSE_RESULT_ENCRYPTED});
  EXPECT_THAT(events, IsEmpty());
  EXPECT_EQ(scan(zip_with({secret, {"bad", bad_content_}, secret}), 2), VSE_SCAN_DETECTED);
  EXPECT_EQ(event().archive, "bad");
  EXPECT_EQ(scan(zipped("plain", "nothing"), 2), VSE_SCAN_CLEAN);
  EXPECT_EQ(result(), unsigned{VSE_RESULT_NOTHING_FOUND});
  EXPECT_EQ(scan(zip_with({secret, {"in.zip", zipped("plain", "nothing")}}), 1), VSE_SCAN_CLEAN);
  EXPECT_EQ(result(), unsigned{VSE_RESULT_ENCRYPTED}) << "rather than too deep";
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
  EXPECT_EQ(found_in(zipped("page.html", page)), "page.html/textportion");
}

TEST_F(ClamavArchives, LongNamesAreCut) {
  const std::string name(250, 'n');
  const std::string member = found_in(packed(
      6, [&](const std::string&, const std::string& content) { return zipped(name, content); },
      bad_content_));
  EXPECT_EQ(member.substr(0, 502), name + "/" + name + "/");
  EXPECT_EQ(member.size(), 1023U);
}

TEST_F(ClamavArchives, MatchInTheFileItselfAfterItsMembersNamesNoMember) {
  write_file(database_ / "whole.ndb", "Test.Whole:0:*:" + hex("at the very end") + "\n");
  const fs::path other = root_ / "other";
  fs::copy(database_, other);
  handle_ = make_handle(other);
  EXPECT_EQ(found_in(zipped("good", "harmless") + "at the very end"), "");
}

TEST_F(ClamavArchives, ActionsHoldForWhatIsInAnArchiveToo) {
  const std::string content = zipped("bad", bad_content_);
  EXPECT_EQ(set_number(handle_, VSE_PROP_SCAN_ACTION, 1), VSE_OK);
  EXPECT_EQ(scan(content, 1), VSE_SCAN_DETECTED);
  EXPECT_EQ(event().result, unsigned{VSE_RESULT_DISINFECT_FAILED});
  EXPECT_EQ(set_number(handle_, VSE_PROP_SCAN_ACTION, 2), VSE_OK);
  EXPECT_EQ(scan(content, 1), VSE_SCAN_REMOVE);
  EXPECT_EQ(event().result, unsigned{VSE_RESULT_FOUND});
}

}  // namespace
}  // namespace engine_test
