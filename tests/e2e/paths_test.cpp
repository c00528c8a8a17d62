// Which files are looked at: included and excluded paths, and paths that are hard to name.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>

#include "fixture.h"

namespace e2e {
namespace {

using testing::UnorderedElementsAre;

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

TEST_F(Paths, OnlyWhatIsIncludedAndNotExcludedIsScanned) {
  put_infected_in({"data", "data/sub", "database", "else", "data/tmp", "data/tmp/in", "data/odd"});
  for (const char* name : {"single", "single2", "data/tmpfile", "data/not"}) {
    put_infected(name);
  }
  set("IncludeDirectory", watched("absent"));
  add("IncludeDirectory", watched("data") + "/");  // one trailing slash is dropped
  add("IncludeDirectory", watched("data/tmp/in"));
  add("IncludeFile", watched("single"));
  add("ExcludeDirectory", watched("data/tmp"));
  add("ExcludeDirectory", watched("data/odd") + "/");  // with its slash it excludes nothing
  add("ExcludeFile", watched("data/not"));
  add("ExcludeFile", watched("absent too"));
  start();
  for (const char* name :
       {"data/file", "data/sub/file", "single", "data/tmpfile", "data/odd/file"}) {
    expect_watched(name);
  }
  for (const char* name :
       {"database/file", "else/file", "single2", "data/tmp/file", "data/tmp/in/file", "data/not"}) {
    expect_unwatched(name);
  }
  const auto area = StatusArea::map();
  EXPECT_THAT(area->inclusions(),
              UnorderedElementsAre(watched("data"), watched("data/tmp/in"), watched("single")));
  EXPECT_THAT(area->exclusions(), UnorderedElementsAre(watched("data/not"), watched("data/tmp"),
                                                       watched("data/odd") + "/"));
}

TEST_F(Paths, EverythingIsScannedWhenNothingIsIncluded) {
  const std::string file = put_infected("file");
  // Of the root its only slash is dropped, and an empty path does not exist.
  for (const char* included : {"", "/"}) {
    drop("IncludeDirectory");
    if (*included != '\0') {
      set("IncludeDirectory", included);
    }
    set("ExcludeDirectory", work());  // test and daemon themselves stay out of it
    start();
    EXPECT_EQ(open_status(file), EPERM) << included;
    EXPECT_TRUE(StatusArea::map()->inclusions().empty());
    stop();
  }
}

TEST_F(Paths, NamesMayHoldAnyByteAndBeAsLongAsCanBeNamed) {
  std::vector<std::string> names = {"blank and  blanks", "new\nline",   "tab\ttab",
                                    "\"quoted\"",        "back\\slash", "%s%n%d",
                                    "\xff\xfe\x80",      "caf\xc3\xa9"};
  for (const std::string& name : names) {
    put_infected(name);
  }
  std::string folder;
  while (watched(folder + "/f").size() + 251 < 4095) {
    folder += (folder.empty() ? "" : "/") + std::string(250, 'd');
    World::make_folder(watched(folder));
  }
  const std::string longest = folder + "/" + std::string(4095 - watched(folder + "/").size(), 'f');
  put_infected(longest);
  ASSERT_EQ(watched(longest).size(), 4095U);
  start();
  for (const std::string& name : names) {
    EXPECT_EQ(open_status(watched(name)), EPERM) << name;
    EXPECT_EQ(scans(watched(name)), 1U) << name;
    EXPECT_TRUE(logged("Path: \"" + watched(name) + "\"\n")) << name;
  }
  EXPECT_EQ(open_status(watched(longest)), EPERM);
}

}  // namespace
}  // namespace e2e
