// What becomes of one open: refused, allowed, scanned or not, and what is said of it.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "fixture.h"

namespace e2e {
namespace {

using testing::Each;
using testing::EndsWith;
using testing::UnorderedElementsAre;

class Access : public E2eTest {};

/// Overwrites the beginning of a file through a mapping that outlives the descriptor.
int write_through_mapping(const std::string& path, const char* text) {
  const int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
  const size_t size = std::strlen(text);
  if (fd < 0 || ftruncate(fd, static_cast<off_t>(size)) != 0) {
    return errno;
  }
  void* mapping = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  close(fd);
  if (mapping == MAP_FAILED) {
    return ENOMEM;
  }
  std::memcpy(mapping, text, size);
  return munmap(mapping, size);
}

// labels: essential one-processor
TEST_F(Access, InfectedFileIsRefusedAndACleanOneOpensForReadingAndForWriting) {
  const std::string infected = put_infected("bad");
  const std::string clean = put_clean("good");
  world().put(watched("program"), "!detect\n", 0755);
  start();
  for (const int flags : {O_RDONLY, O_WRONLY, O_RDWR}) {
    EXPECT_EQ(open_status(infected, flags), EPERM) << flags;
    EXPECT_EQ(open_status(clean, flags), 0) << flags;
  }
  EXPECT_EQ(scans(infected), 3U) << "a file that is refused is never cached";
  EXPECT_EQ(world().read(infected), "!detect name=Test.Infected \n");
  Process runner([&] {
    execl(watched("program").c_str(), "program", nullptr);
    return errno;
  });
  EXPECT_EQ(runner.status(), EPERM) << "an infected program is not executed";
}

// Sizes that 31 and 32 bits cannot hold.
// labels: essential
TEST_F(Access, FilesOfThreeAndFiveGibibytesAreScannedAndOpenedOrRefused) {
  for (const off_t gibibytes : {3, 5}) {
    world().resize(put_clean("good" + std::to_string(gibibytes)), gibibytes << 30);
    world().resize(put_infected("bad" + std::to_string(gibibytes)), gibibytes << 30);
  }
  start();
  for (const char* size : {"3", "5"}) {
    const std::string clean = watched(std::string("good") + size);
    const std::string infected = watched(std::string("bad") + size);
    EXPECT_EQ(open_status(clean, O_RDONLY), 0) << size;
    EXPECT_EQ(scans(clean), 1U) << size;
    EXPECT_EQ(open_status(clean, O_RDWR), 0) << size;
    EXPECT_EQ(open_status(infected, O_RDONLY), EPERM) << size;
    EXPECT_EQ(scans(infected), 1U) << size << ": the kernel refused it by itself";
  }
}

// labels: essential
TEST_F(Access, NewFileIsScannedWhenItIsClosed) {
  const std::string clean = put_clean("file");
  const std::string mapped = put_clean("mapped");
  const std::string read = put_infected("bad", "code=0");
  start();
  EXPECT_EQ(write_status(clean, "still clean\n"), 0);
  EXPECT_TRUE(eventually([&] { return scans(clean) == 2; })) << engine_record();
  EXPECT_EQ(write_status(watched("new"), "!detect name=Test.Written\n"), 0);
  expect_logged("Detection name: \"Test.Written\"");
  Process writer([&] { return write_through_mapping(mapped, "!detect name=Test.Mapped"); });
  EXPECT_EQ(writer.status(), 0);
  expect_logged("Detection name: \"Test.Mapped\"");
  // Until the scan's verdict is in, the one from before it was written holds.
  EXPECT_TRUE(eventually([&] { return open_status(watched("new")) == EPERM; }));
  EXPECT_TRUE(eventually([&] { return open_status(mapped) == EPERM; }));
  // Closing without having opened for writing is no reason to scan; it would be done in its turn.
  EXPECT_EQ(open_status(read), 0);
  EXPECT_EQ(write_status(watched("after"), "!detect name=Test.After\n"), 0);
  expect_logged("Detection name: \"Test.After\"");
  EXPECT_EQ(scans_begun(read), 1U);
}

TEST_F(Access, OnlyRegularFilesAreScannedAndAFifoHoldsUpNobody) {
  ASSERT_EQ(mkfifo(watched("fifo").c_str(), 0644), 0);
  ASSERT_EQ(mknod(watched("device").c_str(), S_IFCHR | 0644, makedev(1, 3)), 0);
  World::make_folder(watched("folder"));
  start();
  EXPECT_EQ(open_status(watched("fifo"), O_RDONLY | O_NONBLOCK), 0);
  EXPECT_EQ(open_status(watched("device")), 0);
  EXPECT_EQ(open_status(watched("folder"), O_RDONLY | O_DIRECTORY), 0);
  const Process reader = start_open(watched("fifo"), O_RDONLY);  // until there is a writer
  EXPECT_EQ(open_status(put_infected("bad")), EPERM) << "the watch goes on";
  EXPECT_EQ(engine_calls("vseExec").size(), 1U);
}

// labels: essential one-processor
TEST_F(Access, CleanFileOpenedAgainIsNotScannedAgain) {
  const std::string file = put_clean("file");
  const std::string error = put("error", "!code -1\n");
  const std::string infected = put_infected("bad");
  start();
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(open_status(file), 0);
    EXPECT_EQ(open_status(error), 0);
    EXPECT_EQ(open_status(infected), EPERM);
  }
  EXPECT_EQ(scans_begun(file), 1U);
  EXPECT_EQ(scans_begun(error), 1U) << "an engine's error is cached like any other zero";
  EXPECT_EQ(scans_begun(infected), 3U);
  // An entry is the path alone: another file moved over it inherits the verdict, a known limit.
  ASSERT_EQ(rename(infected.c_str(), file.c_str()), 0);
  EXPECT_EQ(open_status(file), 0);
  EXPECT_EQ(scans_begun(file), 1U);
}

// labels: essential
TEST_F(Access, DetectionIsLoggedInFullAndPushedWithMarkupEscaped) {
  const std::string file =
      put("a&b<c>d'e\"f", "!detect name=x&<>'y type=24 accuracy=2 result=8 archive=in&ner\n");
  const std::string session = "Session ID: -2147483647\nPath: \"" + file + "\"\n";
  set_threads(1);                              // whose handle is the first one
  script("handle-base 0xffffffff80000000\n");  // a session is the handle with its sign
  start();
  EXPECT_EQ(open_status(file), EPERM);
  EXPECT_EQ(count_of(log(), "\nFile scan: " + session), 1U);
  EXPECT_EQ(count_of(log(), "\ninfection detected in: " + session +
                                "Archive name: \"in&ner\"\nDetection name: \"x&<>'y\"\nDetection "
                                "type: \"Trojan\"\nDetection accuracy: \"Heuristic\"\nScan result: "
                                "\"Deleted\"\n"),
            1U)
      << log();
  // Quotes are written as \x22 in the record of events.
  const std::string xml =
      "<xs:add-s resource-type=\\x22AntiVirus\\x22><AntiVirus object-name=\\x22" +
      watched("a&amp;b&lt;c&gt;d&apos;e&quot;fin&amp;ner") +
      "\\x22 detection-name=\\x22x&amp;&lt;&gt;&apos;y"
      "\\x22 detection-type=\\x22vseDetectionTypeTrojan\\x22/></xs:add-s>";
  const std::string length = std::to_string(xml.size() - 3 * count_of(xml, "\\x22"));
  ASSERT_EQ(events().size(), 1U);
  EXPECT_THAT(events()[0], EndsWith(" source=\"scanner\" destination=\"quillboxd\" length=" +
                                    length + " xml=\"" + xml + "\" first=0 second=0"));
}

// Which files are looked at. Infected ones tell best: refused where they are, opened elsewhere.

class Paths : public E2eTest {
 protected:
  void put_infected_in(const std::vector<std::string>& folders) {
    for (const std::string& folder : folders) {
      World::make_folder(watched(folder));
      put_infected(folder + "/file");
    }
  }
  void expect_each(int status, const std::vector<std::string>& files) {
    for (const std::string& name : files) {
      EXPECT_EQ(open_status(watched(name)), status) << name;
    }
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
  expect_each(EPERM, {"data/file", "data/sub/file", "single", "data/tmpfile", "data/odd/file"});
  expect_each(0, {"database/file", "else/file", "single2", "data/tmp/file", "data/tmp/in/file",
                  "data/not"});
  const auto area = StatusArea::map();
  EXPECT_THAT(area->inclusions(),
              UnorderedElementsAre(watched("data"), watched("data/tmp/in"), watched("single")));
  EXPECT_THAT(area->exclusions(), UnorderedElementsAre(watched("data/not"), watched("data/tmp"),
                                                       watched("data/odd") + "/"));
}

// Who is never held: the daemon itself and the processes of the status area. Nobody else.

class Trust : public E2eTest {};

// labels: essential
TEST_F(Trust, EverySlotOfTheTableCountsAndNoneWithoutItsBit) {
  const std::string file = put_infected("bad");
  start();
  auto area = StatusArea::map();
  const auto open_after = [&](const std::string& signal) {
    return Process(
        [&] { return eventually([&] { return World::exists(signal); }) ? try_open(file) : ETIME; });
  };
  std::vector<Process> openers;
  for (size_t slot = 0; slot < StatusArea::slots; ++slot) {
    openers.push_back(open_after(work("go")));
    area->trust(slot, openers.back().pid());
  }
  Process distrusted = open_after(work("again"));
  touch(work("go"));
  EXPECT_THAT(statuses(openers), Each(0));
  EXPECT_EQ(scans_begun(file), 0U);
  area->trust(0, distrusted.pid());
  Process unset = open_after(work("again"));
  area->trust(1, unset.pid());
  area->distrust(0);
  area->set_mask(0);
  touch(work("again"));
  EXPECT_EQ(distrusted.status(), EPERM) << "no longer trusted";
  EXPECT_EQ(unset.status(), EPERM) << "in a slot without its bit";
}

TEST_F(Trust, ProcessWhosePidTheDaemonCannotSeeIsScannedLikeAnyOther) {
  // To a daemon in a pid namespace of its own, everybody outside has pid 0.
  const std::string infected = put_infected("bad");
  start({.wrapper = {"unshare", "--pid", "--fork", "--kill-child"}});
  EXPECT_EQ(open_status(infected), EPERM);
  EXPECT_EQ(open_status(put_clean("good")), 0);
  auto area = StatusArea::map();
  area->set_mask(0xffffffff);  // every free slot holds the value 0
  EXPECT_EQ(open_status(infected), EPERM);
  area->set_owner(0);
  EXPECT_EQ(open_status(infected), EPERM);
  expect_no_clean_end();
}

// Detections whose file the daemon removes, and the files it must never remove.

class Removal : public E2eTest {
 protected:
  std::string put_to_remove(const std::string& name, const std::string& more = "") const {
    return put(name, more + "!detect code=7\n");
  }
};

// labels: essential
TEST_F(Removal, FileIsRefusedAndRemoved) {
  const std::string linked = put_to_remove("linked");
  ASSERT_EQ(symlink(linked.c_str(), watched("link").c_str()), 0);
  const std::string names[] = {"bad",         "with blank", "with\nnewline",
                               "quote\"'&<>", "per%s%n",    "-rf"};
  for (const std::string& name : names) {
    put_to_remove(name);
  }
  start();
  for (const std::string& name : names) {
    EXPECT_EQ(open_status(watched(name)), EPERM) << name;
    EXPECT_TRUE(eventually([&] { return !World::exists(watched(name)); })) << name;
  }
  EXPECT_EQ(write_status(watched("new"), "!detect code=7\n"), 0);
  EXPECT_TRUE(eventually([&] { return !World::exists(watched("new")); }));
  EXPECT_EQ(open_status(watched("link")), EPERM);
  EXPECT_TRUE(eventually([&] { return !World::exists(linked); }));
  EXPECT_TRUE(World::exists(watched("link"))) << "the link is not the file that was found bad";
}

TEST_F(Removal, FileThatTookThePathDuringTheScanIsKept) {
  const std::string swapped = put_to_remove("bad", waiting());
  World::make_folder(watched("other"));
  std::vector<std::string> files = {swapped};
  std::vector<std::string> innocent = {swapped};
  for (const std::string folder : {"folder", "linked"}) {
    World::make_folder(watched(folder));
    files.push_back(put_to_remove(folder + "/" + folder, waiting()));
    innocent.push_back(watched("other/" + folder));
  }
  put_clean("other/folder");
  // Device and inode agree, but the path will lead through a link that the kernel never named.
  ASSERT_EQ(link(files[2].c_str(), innocent[2].c_str()), 0);
  set_threads(3);
  start();
  std::vector<Process> openers;
  for (const std::string& file : files) {
    openers.push_back(open_waiting(file));
  }
  ASSERT_EQ(rename(swapped.c_str(), watched("moved").c_str()), 0);
  put_clean("bad");
  for (const char* folder : {"folder", "linked"}) {
    ASSERT_EQ(rename(watched(folder).c_str(), watched("moved " + std::string(folder)).c_str()), 0);
    ASSERT_EQ(symlink(watched("other").c_str(), watched(folder).c_str()), 0);
  }
  release();
  EXPECT_THAT(statuses(openers), Each(EPERM));
  ASSERT_EQ(unlink(work("go").c_str()), 0);
  auto busy_again = stick_workers(3);  // so each has done with what came before
  release();
  EXPECT_EQ(world().read(innocent[0]), "clean\n") << "an innocent file was removed";
  EXPECT_EQ(world().read(innocent[1]), "clean\n") << "an innocent file was removed";
  EXPECT_TRUE(World::exists(innocent[2]));
}

}  // namespace
}  // namespace e2e
