// SPDX-License-Identifier: GPL-2.0-only
// The engine through its public calls, with databases and files made as the tests run.
#include <clamav.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vse.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace fs = std::filesystem;
using testing::AnyOf;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

// ---- Functions of other libraries that the engine reaches through the test -------------------

namespace {

std::atomic<int> libclamav_starts{0};
std::atomic<int> engines_made{0};
std::atomic<int> engines_compiled{0};
std::atomic<int> engines_freed{0};
std::atomic<int> renames_before_failure{-1};  // negative: none fails

template <typename Function>
Function* next_function(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" {

VSE_API cl_error_t cl_init(unsigned int options) {
  ++libclamav_starts;
  return next_function<cl_error_t(unsigned int)>("cl_init")(options);
}

VSE_API cl_engine* cl_engine_new() {
  ++engines_made;
  return next_function<cl_engine*()>("cl_engine_new")();
}

VSE_API cl_error_t cl_engine_compile(cl_engine* engine) {
  ++engines_compiled;
  return next_function<cl_error_t(cl_engine*)>("cl_engine_compile")(engine);
}

VSE_API cl_error_t cl_engine_free(cl_engine* engine) {
  ++engines_freed;
  return next_function<cl_error_t(cl_engine*)>("cl_engine_free")(engine);
}

VSE_API int rename(const char* from, const char* to) noexcept {
  if (renames_before_failure.load() == 0) {
    errno = EIO;
    return -1;
  }
  if (renames_before_failure.load() > 0) {
    --renames_before_failure;
  }
  return next_function<int(const char*, const char*)>("rename")(from, to);
}

}  // extern "C"

namespace {

// ---- Tools ------------------------------------------------------------------------------------

/// The standard anti-virus test file, which no file of this project may hold in one piece.
std::string test_file_content() {
  return std::string("X5O!P%@AP[4\\PZX54(P^)7") + "CC)7}$EICAR-STANDARD-" + "ANTIVIRUS-TEST-" +
         "FILE!$H+H*";
}

std::string hex(const std::string& text) {
  std::ostringstream out;
  for (const char c : text) {
    constexpr std::string_view kDigits = "0123456789abcdef";
    const auto byte = static_cast<unsigned char>(c);
    out << kDigits[byte >> 4U] << kDigits[byte & 15U];
  }
  return out.str();
}

/// A line of signature text that finds `content` at a file's start.
std::string signature(const std::string& name, const std::string& content) {
  return name + ":0:0:" + hex(content) + "\n";
}

void write_file(const fs::path& path, const std::string& content) {
  std::ofstream(path, std::ios::binary) << content;
  fs::permissions(path, fs::perms(0644));
}

std::string read_file(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

std::map<std::string, std::string> content_of(const fs::path& directory) {
  std::map<std::string, std::string> files;
  for (const auto& entry : fs::recursive_directory_iterator(directory)) {
    files[entry.path().filename()] = entry.is_regular_file() ? read_file(entry) : "(not a file)";
  }
  return files;
}

std::size_t open_descriptors() {
  return static_cast<std::size_t>(
      std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator{}));
}

/// A tar archive with one member. Signatures at offset 0 find the member's content only when the
/// archive is looked into.
std::string tar_with(const std::string& member) {
  std::string header(512, '\0');
  const auto put = [&](std::size_t at, const std::string& text) {
    header.replace(at, text.size(), text);
  };
  std::array<char, 12> size{};
  (void)std::snprintf(size.data(), size.size(), "%011zo", member.size());
  put(0, "member.bin");
  put(100, "0000644");
  put(108, "0000000");
  put(116, "0000000");
  put(124, size.data());
  put(136, "00000000000");
  put(148, "        ");
  put(156, "0");
  put(257, std::string("ustar\0"
                       "00",
                       8));
  unsigned int sum = 0;
  for (const char c : header) {
    sum += static_cast<unsigned char>(c);
  }
  std::array<char, 8> checksum{};
  (void)std::snprintf(checksum.data(), checksum.size(), "%06o", sum);
  put(148, std::string(checksum.data(), 7));
  std::string body = member;
  body.resize((member.size() + 511) / 512 * 512, '\0');
  return header + body + std::string(1024, '\0');
}

/// What one call of the event callback could read.
struct Event {
  unsigned int id = 0;
  std::thread::id thread;
  std::uint32_t result = 99;
  std::uint32_t type = 99;
  std::uint32_t accuracy = 99;
  std::string name;
  std::string archive;
  std::string object;
};

thread_local std::vector<Event> events;

std::uint32_t get_number(VSEHANDLE handle, unsigned int property) {
  std::uint32_t value = 99;
  EXPECT_EQ(vseGet(handle, property, 0, &value, sizeof value, 0), VSE_OK) << property;
  return value;
}

std::string get_text(VSEHANDLE handle, unsigned int property) {
  std::array<char, 10240> buffer;
  buffer.fill('?');
  EXPECT_EQ(vseGet(handle, property, 0, buffer.data(), buffer.size(), 0), VSE_OK) << property;
  return buffer.data();
}

int record_event(VSEHANDLE handle, unsigned int id, void*) {
  Event event;
  event.id = id;
  event.thread = std::this_thread::get_id();
  event.result = get_number(handle, VSE_PROP_SCAN_RESULT);
  event.type = get_number(handle, VSE_PROP_DETECTION_TYPE);
  event.accuracy = get_number(handle, VSE_PROP_DETECTION_ACCURACY);
  event.name = get_text(handle, VSE_PROP_DETECTION_NAME);
  event.archive = get_text(handle, VSE_PROP_ARCHIVE_NAME);
  event.object = get_text(handle, VSE_PROP_OBJECT_NAME);
  events.push_back(event);
  return 0;
}

std::uintptr_t argument(const char* path) {
  return reinterpret_cast<std::uintptr_t>(path);
}

int scan_path(VSEHANDLE handle, const fs::path& path) {
  return vseExec(handle, VSE_EXEC_SCAN_PATH, argument(path.c_str()), 0, 0);
}

int scan_fd(VSEHANDLE handle, const char* path, int fd) {
  return vseExec(handle, VSE_EXEC_SCAN_FD, argument(path), static_cast<std::uintptr_t>(fd), 0);
}

int set_number(VSEHANDLE handle, unsigned int property, std::uint32_t value,
               unsigned int index = 0) {
  return vseSet(handle, property, index, &value, sizeof value, 0);
}

int ignore_types(VSEHANDLE handle, std::uint64_t mask) {
  return vseSet(handle, VSE_PROP_IGNORE_MASK, 0, &mask, sizeof mask, 0);
}

/// A code that no caller takes for a clean file or a detection.
testing::Matcher<int> IsScanError() {
  return Not(AnyOf(0, 1, 2, 7));
}

class ClamavEngine : public testing::Test {
 protected:
  ClamavEngine() {
    std::string name = testing::TempDir() + "clamav-engine-XXXXXX";
    root_ = mkdtemp(name.data());
    database_ = root_ / "database";
    staging_ = root_ / "staging";
    fs::create_directories(root_ / "temporary");
    fs::create_directory(database_);
    fs::create_directory(staging_);
    setenv("TMPDIR", (root_ / "temporary").c_str(), 1);
    write_file(database_ / "test.ndb", signature("Test-File", test_file_content()));
    clean_ = file("clean.txt", "nothing to see here\n");
    bad_ = file("bad.txt", test_file_content());
  }

  ~ClamavEngine() override {
    if (started_) {
      EXPECT_EQ(vseGlobalRelease(), VSE_OK);
    }
    EXPECT_EQ(engines_made, engines_freed);
    EXPECT_THAT(content_of(root_ / "temporary"), IsEmpty());
    fs::remove_all(root_);
  }

  void start() {
    ASSERT_EQ(vseGlobalInit(nullptr), VSE_OK);
    started_ = true;
  }

  /// A new handle on `directory`, or null.
  VSEHANDLE make_handle(const fs::path& directory) {
    VSEHANDLE handle = nullptr;
    const int result = vseInit(0, VSE_INIT_BASE, directory.c_str(), record_event, nullptr, &handle);
    return result == VSE_OK ? handle : nullptr;
  }
  VSEHANDLE make_handle() { return make_handle(database_); }

  fs::path file(const std::string& name, const std::string& content) {
    write_file(root_ / name, content);
    return root_ / name;
  }

  fs::path stage(const std::string& name, const std::string& content) {
    write_file(staging_ / name, content);
    return staging_ / name;
  }

  static int update(VSEHANDLE handle, const fs::path& first, const fs::path& second = {}) {
    const auto as_argument = [](const fs::path& path) {
      return path.empty() ? 0 : argument(path.c_str());
    };
    return vseExec(handle, VSE_EXEC_LOAD_DEFINITIONS, as_argument(first), 0, as_argument(second));
  }

  /// Tries an update that must fail, and checks that it leaves no trace.
  void expect_refused(const fs::path& first, const fs::path& second = {}) {
    const auto before = content_of(database_);
    const VSEHANDLE handle = make_handle();
    ASSERT_NE(handle, nullptr);
    EXPECT_NE(update(handle, first, second), VSE_OK) << first << second;
    EXPECT_EQ(content_of(database_), before);
    EXPECT_EQ(scan_path(handle, bad_), VSE_SCAN_DETECTED);
    EXPECT_EQ(vseRelease(handle), VSE_OK);
    EXPECT_NE(make_handle(), nullptr);
  }

  fs::path root_, database_, staging_, clean_, bad_;
  bool started_ = false;
};

// ---- Scans --------------------------------------------------------------------------------------

TEST_F(ClamavEngine, CleanFileIsCleanByPathAndByDescriptor) {
  start();
  const VSEHANDLE handle = make_handle();
  ASSERT_NE(handle, nullptr);
  EXPECT_EQ(scan_path(handle, clean_), VSE_SCAN_CLEAN);
  EXPECT_EQ(get_number(handle, VSE_PROP_SCAN_RESULT), unsigned{VSE_RESULT_NOTHING_FOUND});
  const int fd = open(clean_.c_str(), O_RDONLY);
  EXPECT_EQ(scan_fd(handle, clean_.c_str(), fd), VSE_SCAN_CLEAN);
  close(fd);
  EXPECT_EQ(scan_path(handle, file("empty", "")), VSE_SCAN_CLEAN);
  EXPECT_THAT(events, IsEmpty());
}

TEST_F(ClamavEngine, BundledDefinitionsFindTheTestFile) {
  start();
  const VSEHANDLE handle = make_handle(BUNDLED_DEFINITIONS);
  ASSERT_NE(handle, nullptr);
  EXPECT_EQ(scan_path(handle, bad_), VSE_SCAN_DETECTED);
  ASSERT_EQ(events.size(), 1U);
  EXPECT_EQ(events[0].name, "Eicar-Test-Signature");
  EXPECT_EQ(events[0].type, 1U);
  EXPECT_EQ(scan_path(handle, clean_), VSE_SCAN_CLEAN);
}

TEST_F(ClamavEngine, EventCarriesTheDetection) {
  start();
  const VSEHANDLE handle = make_handle();
  EXPECT_EQ(scan_path(handle, bad_), VSE_SCAN_DETECTED);
  ASSERT_EQ(events.size(), 1U);
  const Event& event = events[0];
  EXPECT_EQ(event.id, unsigned{VSE_EVENT_DETECT});
  EXPECT_EQ(event.thread, std::this_thread::get_id());
  EXPECT_EQ(event.result, unsigned{VSE_RESULT_FOUND});
  EXPECT_EQ(event.type, 1U);
  EXPECT_EQ(event.accuracy, unsigned{VSE_ACCURACY_EXACT});
  EXPECT_EQ(event.name, "Test-File");
  EXPECT_EQ(event.archive, "");
  EXPECT_EQ(event.object, bad_.string());
}

TEST_F(ClamavEngine, DescriptorIsScannedWhateverThePathSaysAndStaysOpen) {
  start();
  const VSEHANDLE handle = make_handle();
  const int fd = open(bad_.c_str(), O_RDONLY | O_NONBLOCK);
  fs::remove(bad_);
  EXPECT_EQ(scan_fd(handle, "/no/such \"file\"", fd), VSE_SCAN_DETECTED);
  ASSERT_EQ(events.size(), 1U);
  EXPECT_EQ(events[0].object, "/no/such \"file\"");
  EXPECT_NE(fcntl(fd, F_GETFD), -1);
  close(fd);
}

TEST_F(ClamavEngine, ActionDecidesCodeAndResultWord) {
  start();
  const VSEHANDLE handle = make_handle();
  struct Row {
    std::uint32_t action;
    int code;
    std::uint32_t result;
  };
  for (const Row row :
       {Row{1, VSE_SCAN_DETECTED, VSE_RESULT_DISINFECT_FAILED},
        Row{2, VSE_SCAN_REMOVE, VSE_RESULT_FOUND}, Row{0, VSE_SCAN_DETECTED, VSE_RESULT_FOUND}}) {
    events.clear();
    EXPECT_EQ(set_number(handle, VSE_PROP_SCAN_ACTION, row.action), VSE_OK);
    EXPECT_EQ(scan_path(handle, bad_), row.code) << row.action;
    ASSERT_EQ(events.size(), 1U);
    EXPECT_EQ(events[0].result, row.result) << row.action;
    EXPECT_TRUE(fs::exists(bad_)) << "the caller removes files, not the engine";
  }
}

TEST_F(ClamavEngine, ArchiveDepthZeroLooksIntoNoArchiveAndOnlyInThatScan) {
  start();
  const VSEHANDLE handle = make_handle();
  const fs::path archive = file("bad.tar", tar_with(test_file_content()));
  EXPECT_EQ(set_number(handle, VSE_PROP_MAX_ARCHIVE_DEPTH, 0), VSE_OK);
  EXPECT_EQ(scan_path(handle, archive), VSE_SCAN_CLEAN);
  EXPECT_EQ(set_number(handle, VSE_PROP_MAX_ARCHIVE_DEPTH, 2), VSE_OK);
  EXPECT_EQ(scan_path(handle, archive), VSE_SCAN_DETECTED);
  EXPECT_EQ(set_number(handle, VSE_PROP_MAX_ARCHIVE_DEPTH, 0), VSE_OK);
  EXPECT_EQ(scan_path(handle, archive), VSE_SCAN_CLEAN);
}

TEST_F(ClamavEngine, WhatCannotBeScannedIsAnErrorAndNoDetection) {
  start();
  const VSEHANDLE handle = make_handle();
  const fs::path pipe = root_ / "pipe";
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  EXPECT_THAT(scan_path(handle, root_ / "missing"), IsScanError());
  EXPECT_THAT(scan_path(handle, root_), IsScanError());
  EXPECT_THAT(scan_path(handle, pipe), IsScanError());
  EXPECT_THAT(scan_fd(handle, "closed", 9999), IsScanError());
  EXPECT_THAT(scan_fd(handle, "none", -1), IsScanError());
  EXPECT_THAT(vseExec(handle, VSE_EXEC_SCAN_PATH, 0, 0, 0), IsScanError());
  EXPECT_THAT(vseExec(handle, 77, 0, 0, 0), IsScanError());
  EXPECT_THAT(vseExec(nullptr, VSE_EXEC_SCAN_PATH, argument(bad_.c_str()), 0, 0), IsScanError());
  EXPECT_THAT(events, IsEmpty());
  EXPECT_EQ(scan_path(handle, bad_), VSE_SCAN_DETECTED);
}

TEST_F(ClamavEngine, HandleWithoutCallbackScans) {
  start();
  VSEHANDLE handle = nullptr;
  ASSERT_EQ(vseInit(0, 14, database_.c_str(), nullptr, nullptr, &handle), VSE_OK);
  EXPECT_EQ(scan_path(handle, bad_), VSE_SCAN_DETECTED);
}

TEST_F(ClamavEngine, ScansLeaveNoDescriptorOpen) {
  start();
  const VSEHANDLE handle = make_handle();
  const fs::path archive = file("bad.tar", tar_with(test_file_content()));
  (void)scan_path(handle, archive);
  const std::size_t before = open_descriptors();
  for (int i = 0; i < 50; ++i) {
    EXPECT_EQ(scan_path(handle, archive), VSE_SCAN_DETECTED);
    EXPECT_EQ(scan_path(handle, clean_), VSE_SCAN_CLEAN);
  }
  EXPECT_EQ(open_descriptors(), before);
}

// ---- Types, accuracy, the ignore mask -----------------------------------------------------------

TEST_F(ClamavEngine, SignatureNameGivesTypeAndAccuracy) {
  const std::map<std::string, std::uint32_t> types = {
      {"Eicar-Test-Signature", 1},
      {"Win.Virus.Sality-1", 1},
      {"Unix.Malware.Agent-7", 1},
      {"Osx.Adware.Pirrit-1", 2},
      {"Php.Backdoor.Shell-2", 4},
      {"Win.Ircbot.Gen", 4},
      {"Test.Bomb.Zip", 5},
      {"Dos.Boot.Stoned", 6},
      {"Unix.DDoS.Kaiten", 7},
      {"Win.Dialer.Porn-3", 8},
      {"Doc.Downloader.Emotet", 9},
      {"Win.Dropper.Agent", 9},
      {"Pdf.Exploit.CVE_2010_2883", 10},
      {"Test.CVE-2020-0601", 10},
      {"Joke.Screen", 12},
      {"Xls.Macro.Auto", 13},
      {"Email.MassMailer.X", 14},
      {"Win.Worm.Allaple-1", 16},
      {"Win.P2PWorm.Gen", 17},
      {"Win.Proxy.Small", 18},
      {"Win.Stealer.Zeus", 19},
      {"Doc.RemoteTemplate.X", 20},
      {"Email.Phishing.Bank", 21},
      {"Win.Spyware.Banker", 22},
      {"Win.Keylogger.Ardamax", 22},
      {"Unix.Tool.Mirai", 23},
      {"Win.Trojan.Agent-36", 24},
      {"Win.Ransomware.Wannacry", 24},
      {"Win.Packer.Crypt", 27},
      {"Win.Trojan.Adware-12", 24},
      {"win.TROJAN.agent", 24},
      {"Win.Toolbar.Ask", 1},
  };
  std::string text;
  for (const auto& [name, type] : types) {
    text += signature(name, "content of " + name);
  }
  write_file(database_ / "types.ndb", text);
  start();
  const VSEHANDLE handle = make_handle();
  ASSERT_NE(handle, nullptr);
  for (const auto& [name, type] : types) {
    events.clear();
    EXPECT_EQ(scan_path(handle, file("typed", "content of " + name)), VSE_SCAN_DETECTED) << name;
    ASSERT_EQ(events.size(), 1U) << name;
    EXPECT_EQ(events[0].name, name);
    EXPECT_EQ(events[0].type, type) << name;
    EXPECT_EQ(events[0].accuracy, unsigned{VSE_ACCURACY_EXACT}) << name;
  }
}

TEST_F(ClamavEngine, HeuristicSignatureIsReportedAsHeuristic) {
  write_file(database_ / "heuristic.ndb", signature("Heuristics.Trojan.Test", "guess me"));
  start();
  EXPECT_EQ(scan_path(make_handle(), file("guess", "guess me")), VSE_SCAN_DETECTED);
  ASSERT_EQ(events.size(), 1U);
  EXPECT_EQ(events[0].name, "Heuristics.Trojan.Test");
  EXPECT_EQ(events[0].accuracy, unsigned{VSE_ACCURACY_HEURISTIC});
  EXPECT_EQ(events[0].type, 24U);
}

TEST_F(ClamavEngine, IgnoredTypeIsNoDetection) {
  write_file(database_ / "adware.ndb", signature("Win.Adware.Test", "advertisement"));
  start();
  const VSEHANDLE handle = make_handle();
  const fs::path adware = file("adware", "advertisement");
  EXPECT_EQ(scan_path(handle, adware), VSE_SCAN_DETECTED);
  events.clear();
  EXPECT_EQ(ignore_types(handle, std::uint64_t{1} << 2U), VSE_OK);
  EXPECT_EQ(scan_path(handle, adware), VSE_SCAN_CLEAN);
  EXPECT_EQ(get_number(handle, VSE_PROP_SCAN_RESULT), unsigned{VSE_RESULT_NOTHING_FOUND});
  EXPECT_THAT(events, IsEmpty());
  EXPECT_EQ(scan_path(handle, bad_), VSE_SCAN_DETECTED);
  EXPECT_EQ(ignore_types(handle, ~(std::uint64_t{1} << 2U)), VSE_OK);
  EXPECT_EQ(scan_path(handle, bad_), VSE_SCAN_CLEAN);
  EXPECT_EQ(scan_path(handle, adware), VSE_SCAN_DETECTED);
}

TEST_F(ClamavEngine, IgnoredMatchDoesNotHideAnotherOne) {
  write_file(database_ / "both.ndb", signature("Win.Adware.Test", "advertisement") +
                                         "Win.Trojan.Test:0:*:" + hex("and a trojan") + "\n");
  start();
  const VSEHANDLE handle = make_handle();
  const fs::path both = file("both", "advertisement and a trojan");
  for (const unsigned int ignored : {2U, 24U}) {
    events.clear();
    EXPECT_EQ(ignore_types(handle, std::uint64_t{1} << ignored), VSE_OK);
    EXPECT_EQ(scan_path(handle, both), VSE_SCAN_DETECTED) << ignored;
    ASSERT_EQ(events.size(), 1U);
    EXPECT_EQ(events[0].type, ignored == 2 ? 24U : 2U);
  }
  EXPECT_EQ(ignore_types(handle, (1U << 2U) | (1U << 24U)), VSE_OK);
  EXPECT_EQ(scan_path(handle, both), VSE_SCAN_CLEAN);
}

// ---- Properties ---------------------------------------------------------------------------------

TEST_F(ClamavEngine, KnownPropertiesAreAcceptedAndOthersRefused) {
  start();
  const VSEHANDLE handle = make_handle();
  EXPECT_EQ(set_number(handle, VSE_PROP_SESSION_OPTIONS, VSE_SESSION_OPTIONS_DEFAULT), VSE_OK);
  EXPECT_EQ(set_number(handle, VSE_PROP_SCAN_ACTION, 2), VSE_OK);
  EXPECT_EQ(set_number(handle, VSE_PROP_MAX_ARCHIVE_DEPTH, 5), VSE_OK);
  EXPECT_EQ(set_number(handle, VSE_PROP_DECOMPRESS, 0, VSE_DECOMPRESS_LIMIT), VSE_OK);
  EXPECT_EQ(ignore_types(handle, 0xC), VSE_OK);

  const std::uint64_t wide = 0;
  EXPECT_NE(vseSet(handle, VSE_PROP_SCAN_ACTION, 0, &wide, sizeof wide, 0), VSE_OK);
  EXPECT_NE(vseSet(handle, VSE_PROP_SCAN_ACTION, 0, nullptr, 4, 0), VSE_OK);
  EXPECT_NE(set_number(handle, VSE_PROP_SCAN_ACTION, 3), VSE_OK);
  EXPECT_NE(set_number(handle, VSE_PROP_SCAN_ACTION, 1, 1), VSE_OK);
  EXPECT_NE(set_number(handle, VSE_PROP_MAX_ARCHIVE_DEPTH, 0xFFFFFFFF), VSE_OK);
  EXPECT_NE(set_number(handle, VSE_PROP_DECOMPRESS, 0, 5), VSE_OK);
  EXPECT_NE(set_number(handle, VSE_PROP_IGNORE_MASK, 1), VSE_OK);
  EXPECT_NE(set_number(handle, VSE_PROP_SCAN_RESULT, 1), VSE_OK);
  EXPECT_NE(set_number(handle, 1234, 1), VSE_OK);
  EXPECT_NE(set_number(nullptr, VSE_PROP_SCAN_ACTION, 1), VSE_OK);
  EXPECT_EQ(scan_path(handle, bad_), VSE_SCAN_REMOVE) << "a refused value leaves the old one";
}

TEST_F(ClamavEngine, TextsAreCutToTheBufferAndTerminated) {
  start();
  const VSEHANDLE handle = make_handle();
  EXPECT_EQ(scan_path(handle, bad_), VSE_SCAN_DETECTED);
  std::array<char, 6> buffer;
  buffer.fill('?');
  EXPECT_EQ(vseGet(handle, VSE_PROP_DETECTION_NAME, 0, buffer.data(), 5, 0), VSE_OK);
  EXPECT_STREQ(buffer.data(), "Test");
  EXPECT_EQ(buffer[5], '?');
  EXPECT_EQ(vseGet(handle, VSE_PROP_OBJECT_NAME, 0, buffer.data(), 1, 0), VSE_OK);
  EXPECT_STREQ(buffer.data(), "");
  EXPECT_NE(vseGet(handle, VSE_PROP_OBJECT_NAME, 0, buffer.data(), 0, 0), VSE_OK);
  EXPECT_NE(vseGet(handle, VSE_PROP_OBJECT_NAME, 0, nullptr, 4, 0), VSE_OK);
  EXPECT_NE(vseGet(handle, VSE_PROP_OBJECT_NAME, 1, buffer.data(), 4, 0), VSE_OK);
  EXPECT_NE(vseGet(handle, VSE_PROP_DETECTION_TYPE, 0, buffer.data(), 2, 0), VSE_OK);
  EXPECT_NE(vseGet(handle, 1234, 0, buffer.data(), 4, 0), VSE_OK);
  EXPECT_NE(vseGet(nullptr, VSE_PROP_DETECTION_TYPE, 0, buffer.data(), 4, 0), VSE_OK);
}

// ---- Handles, engines, the process --------------------------------------------------------------

TEST_F(ClamavEngine, InitFailsWithoutUsableDefinitionsAndSaysNothing) {
  start();
  const fs::path broken = root_ / "broken";
  const fs::path folder = root_ / "folder";
  const fs::path empty = root_ / "empty";
  fs::create_directory(broken);
  fs::create_directories(folder / "sub.ndb");
  fs::create_directory(empty);
  write_file(broken / "good.ndb", signature("Test", "content"));
  write_file(broken / "junk.ndb", "this is no signature\n");
  write_file(folder / "good.ndb", signature("Test", "content"));
  testing::internal::CaptureStderr();
  EXPECT_EQ(make_handle(root_ / "missing"), nullptr);
  EXPECT_EQ(make_handle(empty), nullptr);
  EXPECT_EQ(make_handle(broken), nullptr);
  EXPECT_EQ(make_handle(folder), nullptr);
  EXPECT_EQ(make_handle(database_ / "test.ndb"), nullptr);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  VSEHANDLE handle = nullptr;
  EXPECT_NE(vseInit(0, 2, nullptr, record_event, nullptr, &handle), VSE_OK);
  EXPECT_NE(vseInit(0, 2, database_.c_str(), record_event, nullptr, nullptr), VSE_OK);
  fs::remove(broken / "junk.ndb");
  EXPECT_NE(make_handle(broken), nullptr) << "a failed load must not be remembered";
}

TEST_F(ClamavEngine, CallsOutsideTheEnginesLifeFail) {
  EXPECT_NE(vseGlobalRelease(), VSE_OK);
  EXPECT_EQ(make_handle(), nullptr);
  start();
  const VSEHANDLE handle = make_handle();
  ASSERT_NE(handle, nullptr);
  EXPECT_EQ(vseRelease(handle), VSE_OK);
  EXPECT_NE(vseRelease(handle), VSE_OK);
  EXPECT_NE(vseRelease(nullptr), VSE_OK);
}

TEST_F(ClamavEngine, HandlesOfOneDirectoryShareOneEngine) {
  start();
  std::vector<VSEHANDLE> handles;
  const fs::path link = root_ / "link";
  fs::create_symlink(database_, link);
  for (const fs::path& directory : {database_, database_ / "", link, database_}) {
    handles.push_back(make_handle(directory));
    ASSERT_NE(handles.back(), nullptr);
  }
  EXPECT_EQ(engines_compiled, 1);
  const fs::path other = root_ / "other";
  fs::copy(database_, other);
  handles.push_back(make_handle(other));
  EXPECT_EQ(engines_compiled, 2);
  for (const VSEHANDLE handle : handles) {
    EXPECT_EQ(scan_path(handle, bad_), VSE_SCAN_DETECTED);
    EXPECT_EQ(vseRelease(handle), VSE_OK);
  }
  EXPECT_EQ(engines_freed, 2);
}

TEST_F(ClamavEngine, GlobalReleaseFreesHandlesStillOpenAndTheEngineStartsAgain) {
  for (int round = 1; round <= 2; ++round) {
    ASSERT_EQ(vseGlobalInit("key"), VSE_OK);
    for (int i = 0; i < 5; ++i) {
      EXPECT_EQ(scan_path(make_handle(), bad_), VSE_SCAN_DETECTED);
    }
    EXPECT_EQ(engines_made, round);
    EXPECT_EQ(vseGlobalRelease(), VSE_OK);
    EXPECT_EQ(engines_freed, round);
  }
  EXPECT_EQ(libclamav_starts, 1);
}

TEST_F(ClamavEngine, ManyThreadsScanAtOnce) {
  start();
  const fs::path archive = file("bad.tar", tar_with(test_file_content()));
  std::atomic<int> wrong{0};
  const auto work = [&] {
    const VSEHANDLE handle = make_handle();
    for (int i = 0; i < 250 && handle != nullptr; ++i) {
      events.clear();
      wrong += scan_path(handle, clean_) != VSE_SCAN_CLEAN;
      wrong += scan_path(handle, bad_) != VSE_SCAN_DETECTED;
      wrong += scan_path(handle, archive) != VSE_SCAN_DETECTED;
      wrong += events.size() != 2 || events[0].object != bad_ || events[1].object != archive;
    }
    wrong += handle == nullptr || vseRelease(handle) != VSE_OK;
  };
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back(work);
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(wrong, 0);
}

// ---- Definition updates -------------------------------------------------------------------------

TEST_F(ClamavEngine, UpdateReachesNewHandlesAndOldOnesKeepWorking) {
  start();
  const fs::path fresh = file("fresh", "a new kind of malware");
  const VSEHANDLE old_handle = make_handle();
  EXPECT_EQ(scan_path(old_handle, fresh), VSE_SCAN_CLEAN);
  const fs::path first = stage("antivir.def", signature("New.One", "a new kind of malware"));
  const fs::path second = stage("aivsecon.def", signature("New.Two", "another kind"));
  EXPECT_EQ(update(old_handle, first, second), VSE_OK);

  const VSEHANDLE new_handle = make_handle();
  ASSERT_NE(new_handle, nullptr);
  EXPECT_EQ(scan_path(new_handle, fresh), VSE_SCAN_DETECTED);
  EXPECT_EQ(scan_path(new_handle, file("second", "another kind")), VSE_SCAN_DETECTED);
  EXPECT_EQ(scan_path(new_handle, bad_), VSE_SCAN_DETECTED);
  EXPECT_EQ(scan_path(old_handle, fresh), VSE_SCAN_CLEAN);
  EXPECT_EQ(scan_path(old_handle, bad_), VSE_SCAN_DETECTED);

  EXPECT_EQ(engines_made - engines_freed, 2);
  EXPECT_EQ(vseRelease(old_handle), VSE_OK);
  EXPECT_EQ(engines_made - engines_freed, 1) << "the old engine goes with its last handle";
  EXPECT_EQ(scan_path(make_handle(), fresh), VSE_SCAN_DETECTED);
  EXPECT_THAT(content_of(database_),
              ElementsAre(std::pair{"aivsecon.ndb", read_file(second)},
                          std::pair{"antivir.ndb", read_file(first)}, testing::_));
  EXPECT_TRUE(fs::exists(first)) << "the given files stay the caller's";
}

TEST_F(ClamavEngine, UpdateWithOnlyTheSecondFileSucceedsAndWithNoneFails) {
  start();
  const VSEHANDLE handle = make_handle();
  EXPECT_NE(update(handle, {}, {}), VSE_OK);
  EXPECT_EQ(update(handle, {}, stage("aivsecon.def", signature("New", "second file"))), VSE_OK);
  EXPECT_EQ(scan_path(make_handle(), file("f", "second file")), VSE_SCAN_DETECTED);
}

TEST_F(ClamavEngine, UpdateReplacesTheLastOne) {
  start();
  EXPECT_EQ(update(make_handle(), stage("antivir.def", signature("Old", "old malware"))), VSE_OK);
  write_file(database_ / "antivir.cvd", "what an update in the other format left");
  const VSEHANDLE handle = make_handle(BUNDLED_DEFINITIONS);
  ASSERT_NE(handle, nullptr);
  fs::remove(database_ / "antivir.cvd");
  const VSEHANDLE again = make_handle();
  write_file(database_ / "antivir.cvd", "what an update in the other format left");
  EXPECT_EQ(update(again, stage("antivir.def", signature("New", "new malware"))), VSE_OK);
  const VSEHANDLE fresh = make_handle();
  ASSERT_NE(fresh, nullptr);
  EXPECT_EQ(scan_path(fresh, file("f", "new malware")), VSE_SCAN_DETECTED);
  EXPECT_EQ(scan_path(fresh, file("f", "old malware")), VSE_SCAN_CLEAN);
  EXPECT_FALSE(fs::exists(database_ / "antivir.cvd"));
}

TEST_F(ClamavEngine, BrokenUpdateChangesNothing) {
  start();
  const fs::path good = stage("antivir.def", signature("New", "content"));
  expect_refused(stage("aivsecon.def", "no signature\n"));
  expect_refused(good, stage("aivsecon.def", "no signature\n"));
  expect_refused(good, stage("aivsecon.def", ""));
  expect_refused(good, stage("aivsecon.def", "# nothing but a comment\n"));
  expect_refused(stage("aivsecon.def", "ClamAV-VDB:01 Jan 2024 00-00 +0000:1:1:90:x:y:z:0"));
  expect_refused(good, staging_ / "missing.def");
  expect_refused(good, good);
  EXPECT_EQ(update(make_handle(), good), VSE_OK) << "the good file alone must be fine";
}

TEST_F(ClamavEngine, UpdateFilesThatOthersControlAreRefused) {
  start();
  const fs::path good = stage("antivir.def", signature("New", "content"));
  fs::create_symlink(good, staging_ / "link.def");
  expect_refused(staging_ / "link.def");
  expect_refused(staging_);
  const fs::path pipe = staging_ / "pipe.def";
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  expect_refused(pipe);
  fs::permissions(good, fs::perms(0664));
  expect_refused(good);
  fs::permissions(good, fs::perms(0646));
  expect_refused(good);
  if (geteuid() == 0) {
    fs::permissions(good, fs::perms(0644));
    ASSERT_EQ(chown(good.c_str(), 1234, 0), 0);
    expect_refused(good);
  }
}

TEST_F(ClamavEngine, UpdateThatFailsHalfWayIsTakenBack) {
  start();
  EXPECT_EQ(update(make_handle(), stage("antivir.def", signature("Old", "old"))), VSE_OK);
  const fs::path first = stage("antivir.def", signature("New", "new"));
  const fs::path second = stage("aivsecon.def", signature("New", "new too"));
  const fs::path third = stage("extra.def", signature("New", "and new again"));
  // Two renames give the files their names for the trial, the next two put them into force.
  for (int successful = 0; successful < 4; ++successful) {
    const auto before = content_of(database_);
    const VSEHANDLE handle = make_handle();
    renames_before_failure = successful;
    const int result =
        successful % 2 == 0 ? update(handle, first, second) : update(handle, third, first);
    renames_before_failure = -1;
    EXPECT_NE(result, VSE_OK) << successful;
    EXPECT_EQ(content_of(database_), before) << successful;
  }
  EXPECT_EQ(update(make_handle(), first, second), VSE_OK);
}

TEST_F(ClamavEngine, LeftoversOfAnInterruptedUpdateDoNoHarm) {
  fs::create_directories(database_ / ".pelo-update" / "trial");
  write_file(database_ / ".pelo-update" / "trial" / "antivir.ndb", "half a defin");
  start();
  const VSEHANDLE handle = make_handle();
  ASSERT_NE(handle, nullptr);
  EXPECT_EQ(update(handle, stage("antivir.def", signature("New", "new"))), VSE_OK);
  EXPECT_FALSE(fs::exists(database_ / ".pelo-update"));
  EXPECT_EQ(scan_path(make_handle(), file("f", "new")), VSE_SCAN_DETECTED);
}

TEST_F(ClamavEngine, ScansRunOnWhileDefinitionsAreRenewed) {
  start();
  std::atomic<bool> done{false};
  std::atomic<int> wrong{0};
  std::atomic<int> scans{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 3; ++i) {
    threads.emplace_back([&, handle = make_handle()] {
      while (!done) {
        wrong += scan_path(handle, bad_) != VSE_SCAN_DETECTED;
        wrong += scan_path(handle, clean_) != VSE_SCAN_CLEAN;
        ++scans;
      }
    });
  }
  for (int i = 0; i < 10; ++i) {
    const std::string content = "malware number " + std::to_string(i);
    const VSEHANDLE temporary = make_handle();
    EXPECT_EQ(update(temporary, stage("antivir.def", signature("New", content))), VSE_OK);
    EXPECT_EQ(vseRelease(temporary), VSE_OK);
    const VSEHANDLE renewed = make_handle();
    EXPECT_EQ(scan_path(renewed, file("f", content)), VSE_SCAN_DETECTED);
    EXPECT_EQ(vseRelease(renewed), VSE_OK);
  }
  done = true;
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(wrong, 0);
  EXPECT_GT(scans, 0);
}

}  // namespace
