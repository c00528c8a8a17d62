// Folders and files for the tests of the check command. "@" in the texts of a test stands for the
// test's own folder.
#pragma once

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "config_check.h"
#include "findings.h"
#include "logger.h"
#include "temp_directory.h"
#include "watched_mounts.h"

/// One setting and the one thing that is to be found in it.
struct OddSetting {
  std::string setting;  ///< its line
  std::string text;

  /// As CheckTest::text_of() gives it, but for the line's number.
  std::string finding() const { return setting.substr(0, setting.find(' ')) + ": " + text; }
};

/// A file and everything that is to be found in it.
struct CheckedFile {
  std::string content;
  std::string findings;  ///< as text_of() gives them
};

class CheckTest : public testing::Test {
 protected:
  CheckTest() {
    Logger::disable_for_good();
    for (const char* name : {"data", "data/sub", "other", "oth", "db", "staging", "log", "etc"}) {
      std::filesystem::create_directory(directory_.path(name));
      std::filesystem::permissions(directory_.path(name), std::filesystem::perms(0755));
    }
    directory_.put("file", "");
    std::filesystem::create_symlink("data", directory_.path("link"));
    mounts_.table = directory_.put("mtab", "d / ext4 rw 0 0\n");
    put_mount("/", "ext4");
  }

  /// Has the test's folder lie on this mount, by the numbers of mounts.
  void put_mount(const std::string& point, const std::string& type) {
    struct statx status {};
    ASSERT_EQ(statx(AT_FDCWD, directory_.path().c_str(), 0, STATX_MNT_ID, &status), 0);
    ASSERT_NE(status.stx_mask & STATX_MNT_ID, 0U);
    mounts_.ids = directory_.put("mountinfo", std::to_string(status.stx_mnt_id) + " 1 0:1 / " +
                                                  point + " rw shared:1 - " + type + " d rw\n");
  }

  /// The text with the test's folder in place of every "@".
  std::string here(std::string_view text) const {
    std::string whole;
    for (const char c : text) {
      whole += c == '@' ? directory_.path() : std::string(1, c);
    }
    return whole;
  }

  /// Keys whose defaults name folders of this machine, for a configuration that does not set them.
  std::string with_folders(std::string content) const {
    for (const char* setting : {"DatabaseDirectory @/db", "StagingDirectory @/staging",
                                "LogPath @/log", "ConfPath @/etc"}) {
      const std::string_view key =
          std::string_view(setting).substr(0, std::string_view(setting).find(' '));
      if (("\n" + content).find("\n" + std::string(key)) == std::string::npos) {
        content += std::string(setting) + "\n";
      }
    }
    return here(content);
  }

  /// "LINE KEY: TEXT" of each, or "LINE TEXT" of what is about no key.
  static std::string text_of(const Findings& findings) {
    std::string all;
    for (const Finding& finding : findings) {
      all += (all.empty() ? "" : "\n") + std::to_string(finding.line) + " " + finding.key +
             (finding.key.empty() ? "" : ": ") + finding.text;
    }
    return all;
  }

  TempDirectory directory_;
  MountFiles mounts_;  // a watched one
};

class ConfigCheckTest : public CheckTest {
 protected:
  ConfigCheck check(const std::string& content) {
    const std::string text = with_folders(content);
    return check_config(directory_.put("pelowatchd.conf", text), text, mounts_);
  }
};
