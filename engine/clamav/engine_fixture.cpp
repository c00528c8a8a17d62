// SPDX-License-Identifier: GPL-2.0-only
#include "engine_fixture.h"

#include <clamav.h>
#include <dlfcn.h>
#include <sys/mount.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <utility>

namespace engine_test {

std::atomic<int> libclamav_starts{0};
std::atomic<int> engines_made{0};
std::atomic<int> engines_freed{0};
thread_local int passes = 0;
std::atomic<int> renames_before_failure{-1};
std::atomic<int> syncs_before_failure{-1};
std::atomic<std::chrono::seconds> clock_ahead{std::chrono::seconds(0)};
std::function<void()> at_next_compilation;
std::function<void()> at_next_link;
thread_local std::function<void()> at_next_read;

}  // namespace engine_test

namespace {

template <typename Function>
Function* next_function(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

/// Counts one call down. @return whether it is the one that fails.
bool fails(std::atomic<int>& calls_before_failure) {
  const bool now = calls_before_failure.fetch_sub(1) == 0;
  errno = now ? EIO : errno;
  return now;
}

void call_once(std::function<void()>& hook) {
  if (hook) {
    std::exchange(hook, nullptr)();
  }
}

}  // namespace

// For LeakSanitizer: libclamav does not give back what OpenSSL has made for it when the signature
// of a container is not there.
extern "C" const char* __lsan_default_suppressions() {
  return "leak:libcrypto.so\n";
}

// The loader finds these before those of libclamav and of the C library.
extern "C" {

VSE_API cl_error_t cl_init(unsigned int options) {
  ++engine_test::libclamav_starts;
  return next_function<decltype(cl_init)>("cl_init")(options);
}

VSE_API cl_engine* cl_engine_new() {
  ++engine_test::engines_made;
  return next_function<decltype(cl_engine_new)>("cl_engine_new")();
}

VSE_API cl_error_t cl_engine_compile(cl_engine* engine) {
  call_once(engine_test::at_next_compilation);
  return next_function<decltype(cl_engine_compile)>("cl_engine_compile")(engine);
}

VSE_API cl_error_t cl_engine_free(cl_engine* engine) {
  ++engine_test::engines_freed;
  return next_function<decltype(cl_engine_free)>("cl_engine_free")(engine);
}

VSE_API cl_error_t cl_scandesc_callback(int fd, const char* name, const char** signature,
                                        unsigned long* scanned, const cl_engine* engine,
                                        cl_scan_options* options, void* context) {
  ++engine_test::passes;
  static auto* const next = next_function<decltype(cl_scandesc_callback)>("cl_scandesc_callback");
  return next(fd, name, signature, scanned, engine, options, context);
}

VSE_API int symlink(const char* target, const char* path) noexcept {
  call_once(engine_test::at_next_link);
  return next_function<int(const char*, const char*)>("symlink")(target, path);
}

VSE_API int renameat(int from_folder, const char* from, int to_folder, const char* to) noexcept {
  static auto* const next = next_function<int(int, const char*, int, const char*)>("renameat");
  return fails(engine_test::renames_before_failure) ? -1 : next(from_folder, from, to_folder, to);
}

VSE_API ssize_t pread64(int fd, void* buffer, size_t size, off64_t offset) {
  call_once(engine_test::at_next_read);
  static auto* const next = next_function<ssize_t(int, void*, size_t, off64_t)>("pread64");
  return next(fd, buffer, size, offset);
}

VSE_API int fsync(int fd) {
  return fails(engine_test::syncs_before_failure) ? -1 : next_function<int(int)>("fsync")(fd);
}

}  // extern "C"

// In place of the C++ library's, whose name does not depend on the width of a time.
std::chrono::steady_clock::time_point std::chrono::steady_clock::now() noexcept {
  timespec now{};
  (void)clock_gettime(CLOCK_MONOTONIC, &now);
  return time_point(engine_test::clock_ahead.load() + std::chrono::seconds(now.tv_sec) +
                    std::chrono::nanoseconds(now.tv_nsec));
}

namespace engine_test {

std::string hex(const std::string& text) {
  std::string out;
  for (const char c : text) {
    std::array<char, 3> digits{};
    (void)std::snprintf(digits.data(), digits.size(), "%02x", static_cast<unsigned char>(c));
    out += digits.data();
  }
  return out;
}

std::string signature(const std::string& name, const std::string& content) {
  return name + ":0:0:" + hex(content) + "\n";
}

std::string yara_rule(const std::string& name, const std::string& content) {
  return "rule " + name + "\n{\n  strings:\n    $a = \"" + content +
         "\"\n  condition:\n    $a\n}\n";
}

std::string output_of(const std::string& command, const std::string& input) {
  const std::string in = testing::TempDir() + "clamav-engine-" + std::to_string(getpid());
  const std::string out = in + "-out";
  write_file(in, input);
  // NOLINTNEXTLINE(bugprone-command-processor): commands of the tests' own
  EXPECT_EQ(std::system((command + " <" + in + " >" + out).c_str()), 0);
  std::string output = read_file(out);
  fs::remove(in);
  fs::remove(out);
  return output;
}

void write_file(const fs::path& path, const std::string& content) {
  std::ofstream(path, std::ios::binary) << content;
  fs::permissions(path, fs::perms(0644));
}

std::map<std::string, std::string> content_of(const fs::path& directory) {
  std::map<std::string, std::string> files;
  for (const auto& entry : fs::recursive_directory_iterator(directory)) {
    files[entry.path().filename()] =
        entry.is_regular_file() ? read_file(entry.path()) : "(not a file)";
  }
  files.erase(".pelo-update-lock");
  return files;
}

std::size_t open_descriptors() {
  return static_cast<std::size_t>(
      std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator{}));
}

thread_local std::vector<Event> events;

std::uint32_t get_number(VSEHANDLE handle, unsigned int property) {
  std::uint32_t value = 99;
  EXPECT_EQ(vseGet(handle, property, 0, &value, sizeof value, 0), VSE_OK) << property;
  return value;
}

namespace {

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
  event.result = static_cast<vse_scan_result>(get_number(handle, VSE_PROP_SCAN_RESULT));
  event.type = get_number(handle, VSE_PROP_DETECTION_TYPE);
  event.accuracy = static_cast<vse_accuracy>(get_number(handle, VSE_PROP_DETECTION_ACCURACY));
  event.name = get_text(handle, VSE_PROP_DETECTION_NAME);
  event.archive = get_text(handle, VSE_PROP_ARCHIVE_NAME);
  event.object = get_text(handle, VSE_PROP_OBJECT_NAME);
  events.push_back(event);
  return 0;
}

}  // namespace

std::uintptr_t argument(const char* path) {
  return reinterpret_cast<std::uintptr_t>(path);
}

int scan_path(VSEHANDLE handle, const fs::path& path) {
  return vseExec(handle, VSE_EXEC_SCAN_PATH, argument(path.c_str()), 0, 0);
}

int scan_fd(VSEHANDLE handle, const char* path, int fd) {
  return vseExec(handle, VSE_EXEC_SCAN_FD, argument(path), static_cast<std::uintptr_t>(fd), 0);
}

int set_number(VSEHANDLE handle, unsigned int property, std::uint32_t value, unsigned int index) {
  return vseSet(handle, property, index, &value, sizeof value, 0);
}

int ignore_types(VSEHANDLE handle, std::uint64_t mask) {
  return vseSet(handle, VSE_PROP_IGNORE_MASK, 0, &mask, sizeof mask, 0);
}

testing::Matcher<int> IsScanError() {
  return testing::Not(testing::AnyOf(0, 1, 2, 7));
}

int update(VSEHANDLE handle, const fs::path& first, const fs::path& second) {
  const auto as_argument = [](const fs::path& path) {
    return path.empty() ? 0 : argument(path.c_str());
  };
  return vseExec(handle, VSE_EXEC_LOAD_DEFINITIONS, as_argument(first), 0, as_argument(second));
}

ClamavEngine::ClamavEngine() {
  events.clear();
  clock_ahead = std::chrono::seconds(0);
  fs::create_directory(database_);
  fs::create_directory(staging_);
  write_file(database_ / "test.ndb", signature("Test-File", standard_test_file()));
  clean_ = file("clean.txt", "nothing to see here\n");
  bad_ = file("bad.txt", standard_test_file());
}

ClamavEngine::~ClamavEngine() {
  EXPECT_TRUE(!started_ || !fs::exists(work_folder) || fs::is_empty(work_folder));
  stop();
}

void ClamavEngine::prepare() {
  for (const char* directory : {"/run", "/var/cache"}) {
    fs::create_directories(directory);
    ASSERT_EQ(mount("tmpfs", directory, "tmpfs", 0, "mode=0755,size=2g"), 0);
  }
  reopen();
}

void ClamavEngine::start() {
  stop();
  started_ = vseGlobalInit("key") == VSE_OK;
  ASSERT_TRUE(started_);
  EXPECT_EQ(libclamav_starts, 1);
}

void ClamavEngine::stop() {
  if (std::exchange(started_, false)) {
    EXPECT_EQ(vseGlobalRelease(), VSE_OK);
    EXPECT_EQ(engines_made.exchange(0), engines_freed.exchange(0));
  }
}

void ClamavEngine::reopen() {
  start();
  handle_ = make_handle();
  ASSERT_NE(handle_, nullptr);
}

VSEHANDLE ClamavEngine::make_handle(const fs::path& directory, unsigned int flags) {
  VSEHANDLE handle = nullptr;
  const int result = vseInit(0, flags, directory.c_str(), record_event, nullptr, &handle);
  return result == VSE_OK ? handle : nullptr;
}

fs::path ClamavEngine::file(const std::string& name, const std::string& content) {
  write_file(root_ / name, content);
  return root_ / name;
}

fs::path ClamavEngine::stage(const std::string& name, const std::string& content) {
  return file("staging/" + name, content);
}

void ClamavEngine::add_database(const std::string& name, const std::string& content) {
  write_file(database_ / name, content);
  reopen();
}

int ClamavEngine::scan(const std::string& content) {
  events.clear();
  passes = 0;
  return scan_path(handle_, file("scanned", content));
}

}  // namespace engine_test
