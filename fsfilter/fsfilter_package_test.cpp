// The library as other programs get it: its header, what it exports, what is installed.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "run_command_fixture.h"
#include "temp_directory.h"

namespace {

using testing::HasSubstr;
using testing::Not;
using testing::UnorderedElementsAre;

const std::string source = PELO_FSFILTER_SOURCE;
const std::string install = std::string(PELO_CMAKE) + " --install " + PELO_BUILD_DIRECTORY +
                            " --component fsfilter --prefix ";

std::vector<std::string> c_compilers() {
  std::vector<std::string> names;
  std::istringstream list(PELO_C_COMPILERS);
  for (std::string name; std::getline(list, name, ':');) {
    names.push_back(name);
  }
  return names;
}

TEST(HeaderTest, CompilesTwiceInAFileAsC11AndAsCpp20) {
  const TempDirectory folder;
  const std::string file =
      folder.put("header", "#include \"fsfilter.h\"\n#include \"fsfilter.h\"\n");
  for (const std::string& compiler : c_compilers()) {
    for (const char* language :
         {" -x c -std=c11 -Wstrict-prototypes -Wmissing-prototypes", " -x c++ -std=c++20"}) {
      expect_success(compiler + language +
                     " -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Werror -fsyntax-only -I" +
                     source + " " + file);
    }
  }
}

std::set<std::string> declared_functions() {
  const std::string header = read_file(source + "/fsfilter.h");
  const std::regex declaration(R"(\n(?:FSFILTER_API )?[a-z][\w ]*\*? (\w+)\()");
  std::set<std::string> names;
  for (std::sregex_iterator at(header.begin(), header.end(), declaration), end; at != end; ++at) {
    names.insert((*at)[1]);
  }
  names.erase("");
  return names;
}

/// The names in a list of nm's that are neither of the given types nor the compiler's.
std::set<std::string> names_in(const std::string& arguments, const std::string& other_types) {
  const CommandResult result = run_command(std::string(PELO_NM) + " --defined-only " + arguments);
  EXPECT_EQ(result.status, 0) << result.output;
  std::set<std::string> names;
  std::istringstream lines(result.output);
  for (std::string line; std::getline(lines, line);) {
    std::istringstream words(line);
    std::string address, type, name;
    if (words >> address >> type >> name && other_types.find(type) == std::string::npos &&
        !name.starts_with("__")) {
      names.insert(name.substr(0, name.find('@')));
    }
  }
  return names;
}

TEST(SharedLibraryTest, ExportsTheFunctionsOfTheHeaderAndNothingElse) {
  EXPECT_TRUE(declared_functions().contains("register_filter"));
  EXPECT_TRUE(declared_functions().contains("fatotify_ignore"));
  EXPECT_EQ(names_in(std::string("-D ") + PELO_FSFILTER_SHARED, "A"), declared_functions());
}

TEST(SharedLibraryTest, CallsItselfAndNobodyOfTheSameName) {
  const CommandResult result = run_command(std::string("readelf -rW ") + PELO_FSFILTER_SHARED);
  EXPECT_THAT(result.output, HasSubstr("JUMP_SLO"));
  EXPECT_THAT(result.output, Not(HasSubstr("@@FSFILTER")));
}

TEST(StaticLibraryTest, HasNoNamesThatAProgramMayHaveToo) {
  // Those of which there may be several are the standard library's, or the compiler's.
  std::set<std::string> names =
      names_in(std::string("--extern-only ") + PELO_FSFILTER_STATIC, "WVu");
  std::erase_if(names, [](const std::string& name) {
    return name.find("17fsfilter_internal") != std::string::npos;
  });
  EXPECT_EQ(names, declared_functions());
}

TEST(SharedLibraryTest, HasItsMajorVersionInItsNameAndStaysLoaded) {
  const CommandResult result = run_command(std::string("readelf -d ") + PELO_FSFILTER_SHARED);
  EXPECT_THAT(result.output, HasSubstr("[libfsfilter.so.1]"));
  EXPECT_THAT(result.output, HasSubstr("NODELETE"));
}

/// The library, installed into a folder of the test's own.
class InstalledTest : public testing::Test {
 protected:
  InstalledTest() { expect_success(install + prefix()); }

  std::string prefix() const { return folder_.path("prefix"); }
  std::string libraries() const { return prefix() + "/" + PELO_LIBDIR; }

  /// Whether a program finds its libraries, among which it asks for the shared one by itself or
  /// not, and gets as far as to say how it is used.
  void expect_usage(const std::string& program, bool shared) const {
    const CommandResult needed = run_command("readelf -d " + program + " | grep NEEDED");
    EXPECT_EQ(needed.output.find("libfsfilter.so.1") != std::string::npos, shared);
    const CommandResult result =
        run_command("LD_LIBRARY_PATH=" + libraries() + " " + PELO_EMULATOR + " " + program);
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.output, "usage: deny_suffix SUFFIX MOUNTPOINT\n");
  }

  /// Builds the example against it. @return the program's path
  std::string build_with_pkg_config(const std::string& pkg_config_options) const {
    std::string program = folder_.path("deny_suffix");
    expect_success(std::string(PELO_C_COMPILER) + " -std=c11 " + PELO_C_FLAGS + " -o " + program +
                   " " + source + "/examples/deny_suffix.c -Wall -Wextra -Wpedantic -Werror " +
                   "$(PKG_CONFIG_PATH=" + libraries() + "/pkgconfig pkg-config " +
                   pkg_config_options + " fsfilter)");
    return program;
  }

  /// Builds the example as a project of its own, in C. @return the program's path
  std::string build_with_cmake(const std::string& target) const {
    std::string build = folder_.path("build");
    expect_success(std::string(PELO_CMAKE) + " -S " + source + "/examples -B " + build +
                   " -DCMAKE_PREFIX_PATH=" + prefix() + " -DCMAKE_C_COMPILER=" + PELO_C_COMPILER +
                   " '-DCMAKE_C_FLAGS=" + PELO_C_FLAGS + "' -DFSFILTER_TARGET=" + target);
    expect_success(std::string(PELO_CMAKE) + " --build " + build);
    return build + "/deny_suffix";
  }

  TempDirectory folder_;
};

TEST_F(InstalledTest, HasOneHeaderTwoLibrariesAndTheirDescriptions) {
  std::vector<std::string> files;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(prefix())) {
    if (!entry.is_directory()) {
      files.push_back(entry.path().lexically_relative(prefix()));
    }
  }
  const std::string lib = PELO_LIBDIR;
  EXPECT_THAT(files,
              UnorderedElementsAre("include/fsfilter.h", lib + "/libfsfilter.a",
                                   lib + "/libfsfilter.so", lib + "/libfsfilter.so.1",
                                   lib + "/libfsfilter.so.1.0.0", lib + "/pkgconfig/fsfilter.pc",
                                   lib + "/cmake/fsfilter/fsfilterConfig.cmake",
                                   lib + "/cmake/fsfilter/fsfilterConfigVersion.cmake"));
}

TEST_F(InstalledTest, GoesBelowAnotherRootForPackagers) {
  expect_success("DESTDIR=" + folder_.path("root") + " " + install + "/usr");
  const std::string library = folder_.path("root/usr/") + PELO_LIBDIR;
  EXPECT_TRUE(std::filesystem::exists(folder_.path("root/usr/include/fsfilter.h")));
  const CommandResult result = run_command("PKG_CONFIG_PATH=" + library +
                                           "/pkgconfig pkg-config --variable=includedir fsfilter");
  EXPECT_EQ(std::filesystem::weakly_canonical(result.output.substr(0, result.output.find('\n'))),
            std::filesystem::weakly_canonical(folder_.path("root/usr/include")));
}

TEST_F(InstalledTest, ProgramsInCAreBuiltWithPkgConfig) {
  const std::string program = build_with_pkg_config("--cflags --libs");
  expect_usage(program, true);
  EXPECT_THAT(run_command(std::string(PELO_NM) + " -u " + program).output,
              Not(HasSubstr("__sysv_signal")))
      << "its handlers would be gone after the first signal";
  expect_success("rm " + libraries() + "/libfsfilter.so*");
  expect_usage(build_with_pkg_config("--static --cflags --libs"), false);
}

TEST_F(InstalledTest, ProgramsInCAreBuiltWithCMake) {
  expect_usage(build_with_cmake("fsfilter::fsfilter"), true);
  expect_usage(build_with_cmake("fsfilter::fsfilter_static"), false);
}

}  // namespace
