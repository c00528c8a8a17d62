#include "test_file.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "child_process.h"
#include "standard_test_file.h"
#include "temp_directory.h"

namespace {

std::ptrdiff_t entries(const TempDirectory& directory) {
  return std::distance(std::filesystem::directory_iterator(directory.path()), {});
}

TEST(TestFileTest, IsThereWhileTheObjectLives) {
  const TempDirectory directory;
  {
    std::optional<TestFile> file = TestFile::in(directory.path());
    ASSERT_TRUE(file.has_value());
    EXPECT_EQ(entries(directory), 0);
    EXPECT_EQ(file->write(), 0);
    EXPECT_EQ(read_file(file->path()), standard_test_file());
    EXPECT_EQ(entries(directory), 1) << "and nothing else";
  }
  EXPECT_EQ(entries(directory), 0);
}

TEST(TestFileTest, IsNamedAsTheKernelNamesIt) {
  const TempDirectory directory;
  std::filesystem::create_directory(directory.path("real"));
  std::filesystem::create_symlink("real", directory.path("link"));
  const auto file = TestFile::in(directory.path("link"));
  ASSERT_TRUE(file.has_value());
  const std::string real = std::filesystem::canonical(directory.path("real"));
  EXPECT_EQ(file->path().substr(0, real.size() + 1), real + "/");
}

TEST(TestFileTest, IsRemovedWhoeverWroteItAndMayBeGoneAlready) {
  const TempDirectory directory;
  auto file = TestFile::in(directory.path());
  ASSERT_TRUE(file.has_value());
  ChildProcess writer([&file] { return file->write(); });
  ASSERT_EQ(writer.wait(), 0);
  EXPECT_EQ(entries(directory), 1);
  EXPECT_EQ(file->remove(), 0);
  EXPECT_EQ(entries(directory), 0);
  EXPECT_EQ(file->remove(), 0);
}

TEST(TestFileTest, TheProgramThatMakesItDoesNotHoldIt) {
  const std::string program = read_file("/proc/self/exe");
  EXPECT_EQ(program.find(standard_test_file()), std::string::npos);
  EXPECT_EQ(program.find(standard_test_file().substr(22)), std::string::npos);
}

}  // namespace
