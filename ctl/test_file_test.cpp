#include "test_file.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

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

TEST(TestFileTest, IsNoReasonToFailWhenItIsGoneAlready) {
  const TempDirectory directory;
  auto file = TestFile::in(directory.path());
  ASSERT_TRUE(file.has_value());
  EXPECT_EQ(file->write(), 0);
  EXPECT_EQ(file->remove(), 0);
  EXPECT_EQ(file->remove(), 0);
}

TEST(TestFileTest, IsRemovedWhoeverWroteIt) {
  const TempDirectory directory;
  {
    auto file = TestFile::in(directory.path());
    ASSERT_TRUE(file.has_value());
    const pid_t writer = fork();
    if (writer == 0) {
      _exit(file->write());
    }
    int status = 0;
    ASSERT_EQ(waitpid(writer, &status, 0), writer);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(entries(directory), 1);
  }
  EXPECT_EQ(entries(directory), 0);
}

TEST(TestFileTest, SaysWhyItCannotBe) {
  const TempDirectory directory;
  EXPECT_FALSE(TestFile::in(directory.path("none")).has_value());
  EXPECT_EQ(errno, ENOENT);
  std::ofstream(directory.path("file")) << "text";
  EXPECT_FALSE(TestFile::in(directory.path("file")).has_value());
  EXPECT_EQ(errno, ENOTDIR);
}

TEST(TestFileTest, TheProgramThatMakesItDoesNotHoldIt) {
  const std::string program = read_file("/proc/self/exe");
  EXPECT_EQ(program.find(standard_test_file()), std::string::npos);
  EXPECT_EQ(program.find(standard_test_file().substr(22)), std::string::npos);
}

}  // namespace
