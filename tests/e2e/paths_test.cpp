// Which files are looked at: included and excluded paths, and paths that are hard to name.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "fixture.h"

namespace e2e {
namespace {

class Paths : public E2eTest {
 protected:
  /// Infected files tell best what is looked at: refused where it is, opened where it is not.
  void put_infected_in(const std::vector<std::string>& folders) {
    for (const std::string& folder : folders) {
      World::make_folder(watched(folder));
      put_infected(folder + "/file");
    }
  }
  void expect_watched(const std::string& name) {
    EXPECT_EQ(open_status(watched(name)), EPERM) << name;
  }
  void expect_unwatched(const std::string& name) {
    EXPECT_EQ(open_status(watched(name)), 0) << name;
  }
};

TEST_F(Paths, OnlyWhatIsIncludedIsScanned) {
  put_infected_in({"data", "data/sub", "database", "else"});
  put_infected("single");
  put_infected("single2");
  set("IncludeDirectory", watched("data"));
  add("IncludeFile", watched("single"));
  start();
  expect_watched("data/file");
  expect_watched("data/sub/file");
  expect_unwatched("database/file");
  expect_unwatched("else/file");
  expect_watched("single");
  expect_unwatched("single2");
}

TEST_F(Paths, OneTrailingSlashOfAnIncludedFolderIsDropped) {
  put_infected_in({"data", "else"});
  set("IncludeDirectory", watched("data") + "/");
  start();
  expect_watched("data/file");
  expect_unwatched("else/file");
  EXPECT_EQ(StatusArea::map()->inclusions(), std::vector{watched("data")});
}

TEST_F(Paths, EverythingIsScannedWhenNothingIsIncluded) {
  const std::string file = put_infected("file");
  drop("IncludeDirectory");
  // Test and daemon themselves stay out of it.
  add("ExcludeDirectory", work());
  start();
  EXPECT_EQ(open_status(file), EPERM);
  EXPECT_TRUE(StatusArea::map()->inclusions().empty());
}

TEST_F(Paths, ExcludedFoldersAndFilesAreNotScanned) {
  put_infected_in({"tmp", "tmp/sub"});
  put_infected("tmpfile");
  put_infected("single");
  add("ExcludeDirectory", watched("tmp"));
  add("ExcludeFile", watched("single"));
  start();
  expect_unwatched("tmp/file");
  expect_unwatched("tmp/sub/file");
  expect_unwatched("single");
  expect_watched("tmpfile");
  auto exclusions = StatusArea::map()->exclusions();
  std::sort(exclusions.begin(), exclusions.end());
  EXPECT_EQ(exclusions, (std::vector{watched("single"), watched("tmp")}));
}

TEST_F(Paths, ExclusionWinsAtAnyDepth) {
  put_infected_in({"out", "out/in"});
  add("IncludeDirectory", watched("out/in"));
  add("ExcludeDirectory", watched("out"));
  start();
  expect_unwatched("out/in/file");
}

TEST_F(Paths, ExcludedFolderWithATrailingSlashExcludesNothing) {
  put_infected_in({"tmp"});
  add("ExcludeDirectory", watched("tmp") + "/");
  start();
  expect_watched("tmp/file");
}

TEST_F(Paths, EntriesThatDoNotExistAreSkipped) {
  put_infected_in({"data"});
  set("IncludeDirectory", watched("absent"));
  add("IncludeDirectory", watched("data"));
  add("ExcludeFile", watched("absent too"));
  start();
  expect_watched("data/file");
  EXPECT_EQ(StatusArea::map()->inclusions(), std::vector{watched("data")});
  EXPECT_TRUE(StatusArea::map()->exclusions().empty());
}

TEST_F(Paths, IncludedRootAloneMatchesNothing) {
  // Its only slash is dropped, and an empty path does not exist: an empty set includes everything.
  put_infected_in({"data"});
  set("IncludeDirectory", "/");
  start();
  EXPECT_TRUE(StatusArea::map()->inclusions().empty());
  expect_watched("data/file");
}

TEST_F(Paths, NamesMayHoldAnyByte) {
  const std::string names[] = {"blank and  blanks", "new\nline", "tab\ttab",     "\"quoted\"",
                               "back\\slash",       "%s%n%d",    "\xff\xfe\x80", "caf\xc3\xa9"};
  for (const std::string& name : names) {
    put_infected(name);
  }
  start();
  for (const std::string& name : names) {
    EXPECT_EQ(open_status(watched(name)), EPERM) << name;
    EXPECT_EQ(scans(watched(name)), 1U) << name;
    EXPECT_TRUE(logged("Path: \"" + watched(name) + "\"\n")) << name;
  }
}

TEST_F(Paths, LongestPathThatCanBeNamedIsScanned) {
  std::string folder;
  while (watched(folder + "/f").size() + 251 < 4095) {
    folder += (folder.empty() ? "" : "/") + std::string(250, 'd');
    World::make_folder(watched(folder));
  }
  const std::string name = folder + "/" + std::string(4095 - watched(folder + "/").size(), 'f');
  put_infected(name);
  ASSERT_EQ(watched(name).size(), 4095U);
  start();
  EXPECT_EQ(open_status(watched(name)), EPERM);
}

/// Makes nested folders until the path is too long to be named, with an infected file at the end.
/// @return a descriptor of the innermost folder
int make_unnameable(int folder) {
  const std::string name(250, 'd');
  for (int depth = 0; depth < 17; ++depth) {
    mkdirat(folder, name.c_str(), 0755);
    const int next = openat(folder, name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    close(folder);
    folder = next;
  }
  const int file = openat(folder, "file", O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
  const bool written = write(file, "!detect\n", 8) == 8;
  close(file);
  return written ? folder : -1;
}

/// Opens "file" in the folder made by make_unnameable, going there step by step.
int open_unnameable(const std::string& start) {
  if (chdir(start.c_str()) != 0) {
    return errno;
  }
  while (chdir(std::string(250, 'd').c_str()) == 0) {
  }
  return try_open("file");
}

TEST_F(Paths, FileThatCannotBeNamedIsAllowed) {
  World::make_folder(watched("deep"));
  const int folder = make_unnameable(world().open_unseen(watched("deep"), O_RDONLY | O_DIRECTORY));
  ASSERT_GE(folder, 0);
  close(folder);
  start();
  Process opener([&] { return open_unnameable(watched("deep")); });
  EXPECT_EQ(opener.status(), 0);
  EXPECT_TRUE(engine_calls("vseExec").empty());
  EXPECT_EQ(open_status(put_infected("bad")), EPERM) << "the watch goes on";
}

TEST_F(Paths, TextOfASetThatIsTooLongIsNotPublishedButItsRulesHold) {
  put_infected_in({"data"});
  set("IncludeDirectory", watched("data"));
  for (int i = 0; i < 60; ++i) {
    const std::string name = std::to_string(100 + i) + std::string(200, 'x');
    World::make_folder(watched(name));
    put_infected(name + "/file");
    add("IncludeDirectory", watched(name));
  }
  start();
  expect_watched("data/file");
  expect_watched("159" + std::string(200, 'x') + "/file");
  const auto published = StatusArea::map()->inclusions();
  EXPECT_LT(published.size(), 61U);
  EXPECT_GT(published.size(), 30U) << "the last text that fits stays in place";
}

}  // namespace
}  // namespace e2e
