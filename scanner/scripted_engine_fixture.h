// For the tests of this folder: the adapter on an engine that does what the test tells it and
// writes down every call.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "avsdk_scanner.h"
#include "daemon_config.h"
#include "descriptor.h"
#include "log_records.h"

/// What the engine records of its global start, and of making a handle.
inline std::string global_init(const std::string& key = "null", int result = 0) {
  return "vseGlobalInit key=" + key + " result=" + std::to_string(result);
}
inline std::string engine_init(unsigned flags) {
  return "vseInit reserved=0 flags=" + std::to_string(flags) +
         " database=\"/db\" callback=set context=null handle=1 value=4097 result=0";
}

/// An error record with nothing but a session, a number and a message.
inline std::string error_record(const std::string& session, int number,
                                const std::string& message) {
  return "Error occurred in: Session ID: " + session +
         "\nPath: \"\"\nArchive name: \"\"\nError number: 0x0000000" + std::to_string(number) +
         "\nError Description: \"" + message + "\"\n";
}

class EngineTest : public testing::Test {
 protected:
  EngineTest() {
    setenv("PELO_TEST_ENGINE_RECORD", directory_.path("engine-calls").c_str(), 1);
    setenv("PELO_TEST_ENGINE_SCRIPT", directory_.path("script").c_str(), 1);
    config().LogPath = directory_.path();
    log_up_to(3);
    config().DatabaseDirectory = "/db";
  }
  ~EngineTest() override {
    const std::string record = directory_.read("engine-calls");
    EXPECT_EQ(record.find("VIOLATION"), std::string::npos) << record;
    EXPECT_EQ(record.find("script-error"), std::string::npos) << record;
    EXPECT_EQ(record.find("directive-error"), std::string::npos) << record;
  }

  static void log_up_to(int level) {
    config().Loglevel = level;
    config().configure_logger();
  }

  static GlobalConfig& config() { return *GlobalConfig::getGlobalConfig(); }

  /// The adapter; the first call initialises the engine.
  static AVSDK_scanner& scanner() { return *AVSDK_scanner::getAVSDK_scanner(); }

  /// What the engine is to do; comes before whatever it concerns.
  void script(const std::string& text) const { directory_.put("script", text); }

  /// Scans a file with these directives through a descriptor; the reports name it `name`.
  int find(void* handle, const std::string& directives, const std::string& name = "/named") const {
    const Descriptor file(open(directory_.put("file", directives).c_str(), O_RDONLY | O_CLOEXEC));
    return scanner().scan_file(handle, file.get(), name.c_str(), 2, ConfParser::REPORT, 0);
  }

  /// A handle with the settings applied.
  static void* handle() {
    void* handle = nullptr;
    EXPECT_TRUE(scanner().get_thread_scan_handler(&handle, true));
    return handle;
  }

  /// The engine's calls as it records them, without their threads. Scans and updates are recorded
  /// twice, when they begin and when they end; the beginnings are left out.
  std::vector<std::string> calls() const {
    std::vector<std::string> calls;
    std::istringstream record(directory_.read("engine-calls"));
    for (std::string line; std::getline(record, line);) {
      const std::size_t thread = line.find(" thread=");
      line.erase(thread, line.find(' ', thread + 1) - thread);
      if (line.find("-begin ") == std::string::npos) {
        calls.push_back(line);
      }
    }
    return calls;
  }

  /// The calls since this was last asked.
  std::vector<std::string> new_calls() {
    const std::vector<std::string> all = calls();
    std::vector<std::string> fresh(all.begin() + static_cast<std::ptrdiff_t>(calls_seen_),
                                   all.end());
    calls_seen_ = all.size();
    return fresh;
  }

  /// How many of the calls hold this text.
  long engine_calls(const std::string& text) const {
    const std::vector<std::string> all = calls();
    return std::count_if(all.begin(), all.end(), [&text](const std::string& call) {
      return call.find(text) != std::string::npos;
    });
  }
  bool scan_has_begun(const std::string& path) const {
    const std::string record = directory_.read("engine-calls");
    const std::size_t at = record.find(" path=\"" + path + "\"");
    return at != std::string::npos && record.find('\n', at) != std::string::npos;
  }

  std::vector<std::string> logged() const { return log_records(directory_.path("pelowatchd.log")); }
  long logged_times(const std::string& record) const { return count_record(logged(), record); }

  TempDirectory directory_;

 private:
  std::size_t calls_seen_ = 0;
};
