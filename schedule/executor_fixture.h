// For the tests of this folder: the executor on the scripted engine, a folder to scan and a clock
// that stands where the test puts it.
#pragma once

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <string>
#include <vector>

#include "clock_fixture.h"
#include "manual_scan.h"
#include "scripted_engine_fixture.h"

inline constexpr char file_finished[] = "scanFile has finished\n";

class ExecutorTest : public EngineTest {
 protected:
  ExecutorTest() {
    setenv("TZ", "UTC0", 1);
    tzset();
    it_is(6, 2, 30);
    config().MaxRecursion = 5;
    executor().setScanDepth(5);
    std::filesystem::create_directory(share_);
  }

  static CommandExec& executor() { return *CommandExec::getCommandExec(); }

  /// Sets the clock to a time of May 2024, in which the 6th is a Monday.
  static void it_is(int day, int hour, int minute) {
    std::tm moment{};
    moment.tm_year = 2024 - 1900;
    moment.tm_mon = 4;
    moment.tm_mday = day;
    moment.tm_hour = hour;
    moment.tm_min = minute;
    set_clock(timegm(&moment));
  }

  /// A command for Mondays at 2:30.
  static Command command_for(const std::string& folder,
                             ConfParser::repeat_t repeat = ConfParser::WEEKLY) {
    Command command;
    command.start = ConfParser::time_T(2, 30);
    command.day = ConfParser::MON;
    command.repeat = repeat;
    command.folder = folder;
    return command;
  }
  static Command recursive_for(const std::string& folder) {
    Command command = command_for(folder);
    command.recursive = true;
    return command;
  }

  /// The path of a name in the scanned folder; a file there, its folders included.
  std::string in_share(const std::string& name) const { return share_ + "/" + name; }
  std::string put(const std::string& name, const std::string& content = "") const {
    std::filesystem::create_directories(std::filesystem::path(in_share(name)).parent_path());
    return directory_.put("share/" + name, content);
  }

  /// The scanned files in alphabetical order.
  std::vector<std::string> scanned() const {
    std::vector<std::string> paths;
    for (const std::string& call : calls()) {
      if (call.rfind("vseExec ", 0) == 0) {
        const std::size_t begin = call.find("path=\"") + 6;
        paths.push_back(call.substr(begin, call.find('"', begin) - begin));
      }
    }
    std::sort(paths.begin(), paths.end());
    return paths;
  }
  /// Lets every "!wait" for the gate go on. It is a folder: making it takes no descriptor.
  std::string gate() const { return directory_.path("gate"); }
  void open_gate() const { std::filesystem::create_directory(gate()); }

  static std::string start_record(const std::string& folder, int recursion = 5) {
    return "Scan started: Session ID: -1\nPath: \"" + folder +
           "\"\nRecursion: " + std::to_string(recursion) + "\n";
  }
  /// @param handle the engine's handle by its number, from 1
  static std::string stop_record(const std::string& folder, bool detections, int handle = 1) {
    return "Scan completed: Session ID: " + std::to_string(4096 + handle) + "\nPath: \"" + folder +
           "\"\nDetections: \"" + (detections ? "yes" : "no") + "\"\n";
  }
  static std::string file_record(const std::string& path, int handle = 1) {
    return "File scan: Session ID: " + std::to_string(4096 + handle) + "\nPath: \"" + path + "\"\n";
  }
  static constexpr char no_engine[] = "initialize Unable to initialize scan engine\n";

  const std::string share_ = directory_.path("share");
};
