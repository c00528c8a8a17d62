#include "command_line.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "child_process.h"
#include "daemon_config.h"
#include "temp_directory.h"

namespace {

constexpr char help_text[] =
    "usage: pelowatchd <options>\n"
    "options:\n"
    "\t-h, --help \t Print help information and exit\n"
    "\t-v, --version \t Print version number and exit.\n"
    "\t-c, --config-file FILE \t Read configuration options from FILE\n"
    "\t-k, --cloudaccess-key \t Use KEY when doing cloud-based scanning\n"
    "\t-n, --attach \t Do not detach from console\n"
    "\t-l, --log-level \t Log level: 1 - error; 2 - debug; 3- trace\n";
constexpr char version_text[] = "Version: 3.0\n";

/// What a process that only reads its command line did.
struct Outcome {
  int status = -1;  ///< 99 when the command line did not end it
  std::string output;
  std::string errors;
};

class CommandLineTest : public testing::Test {
 protected:
  CommandLineTest() { config().LogPath = folder_.path(); }

  static GlobalConfig& config() { return *GlobalConfig::getGlobalConfig(); }

  /// Reads a command line in this process; once for a process.
  static void parse(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), "pelowatchd");
    std::vector<char*> pointers;
    for (std::string& argument : arguments) {
      pointers.push_back(argument.data());
    }
    pointers.push_back(nullptr);
    parse_arguments(static_cast<int>(arguments.size()), pointers.data());
  }

  /// The same in a process of its own, which it may end.
  Outcome run(const std::vector<std::string>& arguments) const {
    ChildProcess process([&] {
      redirect(STDOUT_FILENO, "stdout");
      redirect(STDERR_FILENO, "stderr");
      parse(arguments);
      (void)std::fflush(nullptr);
      return 99;
    });
    const int status = process.wait();
    return {status, folder_.read("stdout"), folder_.read("stderr")};
  }

  std::string configuration(const std::string& text) const { return folder_.put("conf", text); }

  TempDirectory folder_;

 private:
  void redirect(int stream, const std::string& name) const {
    const int file = open(folder_.path(name).c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    (void)dup2(file, stream);
    (void)close(file);
  }
};

TEST_F(CommandLineTest, HelpIsPrintedLetterByLetterAndEndsTheProcess) {
  for (const char* option : {"-h", "--help"}) {
    const Outcome outcome = run({option});
    EXPECT_EQ(outcome.status, 0) << option;
    EXPECT_EQ(outcome.output, help_text) << option;
    EXPECT_EQ(outcome.errors, "") << option;
  }
}

TEST_F(CommandLineTest, TheVersionIsPrintedAndEndsTheProcess) {
  for (const char* option : {"-v", "--version"}) {
    const Outcome outcome = run({option});
    EXPECT_EQ(outcome.status, 0) << option;
    EXPECT_EQ(outcome.output, version_text) << option;
  }
}

TEST_F(CommandLineTest, WhatComesAfterTheVersionIsNotRead) {
  EXPECT_EQ(run({"-v", "-h", "--unknown"}).output, version_text);
  EXPECT_EQ(run({"-h", "-v"}).output, help_text);
}

TEST_F(CommandLineTest, AnUnknownOptionPrintsTheHelpAndSucceeds) {
  for (const char* option : {"-x", "--unknown"}) {
    const Outcome outcome = run({option});
    EXPECT_EQ(outcome.status, 0) << option;
    EXPECT_EQ(outcome.output, help_text) << option;
  }
}

TEST_F(CommandLineTest, AnOptionWithoutItsArgumentPrintsTheHelpAndSucceeds) {
  for (const char* option :
       {"-c", "-k", "-l", "--config-file", "--cloudaccess-key", "--log-level"}) {
    const Outcome outcome = run({option});
    EXPECT_EQ(outcome.status, 0) << option;
    EXPECT_EQ(outcome.output, help_text) << option;
  }
}

TEST_F(CommandLineTest, WithoutOptionsTheProcessGoesOn) {
  const Outcome outcome = run({});
  EXPECT_EQ(outcome.status, 99);
  EXPECT_EQ(outcome.output + outcome.errors, "");
}

TEST_F(CommandLineTest, WhatIsNoOptionIsIgnored) {
  const Outcome outcome = run({"word", "another", "-n"});
  EXPECT_EQ(outcome.status, 99);
  EXPECT_EQ(outcome.output + outcome.errors, "");
}

TEST_F(CommandLineTest, TheProcessDetachesUnlessToldOtherwise) {
  EXPECT_EQ(notdetach, 0);
}

TEST_F(CommandLineTest, AttachIsKept) {
  parse({"-n"});
  EXPECT_EQ(notdetach, 1);
}

TEST_F(CommandLineTest, AttachHasALongForm) {
  parse({"--attach"});
  EXPECT_EQ(notdetach, 1);
}

TEST_F(CommandLineTest, TheLogLevelIsANumber) {
  parse({"-l", "3"});
  EXPECT_EQ(config().Loglevel, 3);
}

TEST_F(CommandLineTest, TheLogLevelHasALongForm) {
  parse({"--log-level=1"});
  EXPECT_EQ(config().Loglevel, 1);
}

TEST_F(CommandLineTest, ALogLevelThatIsNoNumberIsZero) {
  parse({"-l", "trace"});
  EXPECT_EQ(config().Loglevel, 0);
}

TEST_F(CommandLineTest, TheCloudKeyIsKept) {
  parse({"-k", "secret"});
  EXPECT_EQ(config().CloudAccessKey, "secret");
}

TEST_F(CommandLineTest, TheCloudKeyHasALongForm) {
  parse({"--cloudaccess-key", "secret"});
  EXPECT_EQ(config().CloudAccessKey, "secret");
}

TEST_F(CommandLineTest, AConfigurationFileIsRead) {
  parse({"-c", configuration("MaxThreads 7\n")});
  EXPECT_EQ(config().MaxThreads, 7);
}

TEST_F(CommandLineTest, AConfigurationFileHasALongForm) {
  parse({"--config-file", configuration("MaxThreads 7\n")});
  EXPECT_EQ(config().MaxThreads, 7);
}

TEST_F(CommandLineTest, AMissingConfigurationFileDoesNotEndTheProcess) {
  EXPECT_EQ(run({"-c", folder_.path("missing")}).status, 99);
}

TEST_F(CommandLineTest, AnOptionAfterTheFileWins) {
  parse({"-c", configuration("Loglevel 1\nCloudAccessKey file\n"), "-l", "3", "-k", "option"});
  EXPECT_EQ(config().Loglevel, 3);
  EXPECT_EQ(config().CloudAccessKey, "option");
}

TEST_F(CommandLineTest, AFileAfterTheOptionWins) {
  parse({"-l", "3", "-k", "option", "-c", configuration("Loglevel 1\nCloudAccessKey file\n")});
  EXPECT_EQ(config().Loglevel, 1);
  EXPECT_EQ(config().CloudAccessKey, "file");
}

TEST_F(CommandLineTest, TheLastOfTwoOptionsWins) {
  parse({"-l", "1", "-l", "2"});
  EXPECT_EQ(config().Loglevel, 2);
}

}  // namespace
