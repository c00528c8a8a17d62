// What the scan engine's definitions cost in memory: while idle, whatever the number of handles,
// and during an update.
//
// engine_memory SIGNATURES HANDLES: makes that many signatures, half of them hashes of files and
// half hex patterns; loads them; updates them with the handles open, renews the handles one by one,
// as the daemon's workers do. Prints resident memory in MiB, and in engines: how often it holds
// what the first handle took. Needs root, as updates do.
#include <sys/stat.h>
#include <unistd.h>
#include <vse.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;

[[noreturn]] void die(const char* what) {
  (void)std::fprintf(stderr, "engine_memory: %s\n", what);
  std::exit(1);
}

/// A folder for the definitions, gone at the end.
class Folder {
 public:
  Folder() {
    std::string name = fs::temp_directory_path() / "engine-memory-XXXXXX";
    path_ = mkdtemp(name.data()) == nullptr ? "" : name;
    fs::create_directory(database());
  }
  ~Folder() { fs::remove_all(path_); }
  Folder(const Folder&) = delete;
  Folder& operator=(const Folder&) = delete;

  fs::path database() const { return path_ / "database"; }
  fs::path update() const { return path_ / "antivir.def"; }

 private:
  fs::path path_;
};

std::string random_hex(std::mt19937_64& random, std::size_t digits) {
  std::string text(digits, '0');
  std::generate(text.begin(), text.end(), [&] { return "0123456789abcdef"[random() % 16]; });
  return text;
}

// Always the same ones, so that figures can be compared.
void write_definitions(const Folder& folder, std::uint64_t signatures) {
  std::mt19937_64 random(1);
  std::ofstream hashes(folder.database() / "main.hdb");
  std::ofstream patterns(folder.database() / "main.ndb");
  for (std::uint64_t i = 0; i < signatures / 2; ++i) {
    const std::string number = std::to_string(i);
    hashes << random_hex(random, 32) << ':' << 1024 + random() % 1000000 << ":Test.Hash-" << number
           << '\n';
    patterns << "Test.Pattern-" << number << ":0:*:" << random_hex(random, 80) << '\n';
  }
  std::ofstream(folder.update()) << "Test.Update:0:*:" << random_hex(random, 80) << '\n';
  (void)chmod(folder.update().c_str(), 0644);
}

/// A value of /proc/self/status in MiB.
double status_value(const std::string& key) {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.compare(0, key.size() + 1, key + ":") == 0) {
      return std::atof(line.c_str() + key.size() + 1) / 1024;
    }
  }
  die("cannot read /proc/self/status");
}

void forget_peak() {
  std::ofstream("/proc/self/clear_refs") << 5;
}

class MemoryTable {
 public:
  void start(const char* what) {
    base_ = status_value("VmRSS");
    std::printf("%-44s %8.1f MiB\n", what, base_);
  }
  void show(const char* what, const char* key) {
    const double value = status_value(key);
    engine_ = engine_ == 0 ? value - base_ : engine_;
    std::printf("%-44s %8.1f MiB %6.2f engines\n", what, value, (value - base_) / engine_);
  }

 private:
  double base_ = 0;
  double engine_ = 0;
};

VSEHANDLE make_handle(const Folder& folder) {
  VSEHANDLE handle = nullptr;
  if (vseInit(0, VSE_INIT_BASE, folder.database().c_str(), nullptr, nullptr, &handle) != VSE_OK) {
    die("the definitions do not load");
  }
  return handle;
}

void load_update(const Folder& folder, VSEHANDLE handle) {
  const std::string file = folder.update();
  const auto argument =
      reinterpret_cast<std::uintptr_t>(file.c_str());  // NOLINT: passed as integer
  if (vseExec(handle, VSE_EXEC_LOAD_DEFINITIONS, argument, 0, 0) != VSE_OK) {
    die("the update is refused");
  }
}

void measure(const Folder& folder, std::size_t handles) {
  MemoryTable table;
  table.start("no handle");
  std::vector<VSEHANDLE> open{make_handle(folder)};
  table.show("one handle", "VmRSS");
  table.show("  peak while it loaded", "VmHWM");
  while (open.size() < handles) {
    open.push_back(make_handle(folder));
  }
  table.show("all handles", "VmRSS");
  for (int round = 1; round <= 3; ++round) {
    std::printf("update %d\n", round);
    forget_peak();
    load_update(folder, open.front());
    table.show("  peak while it loaded", "VmHWM");
    table.show("  before the handles are renewed", "VmRSS");
    for (VSEHANDLE& handle : open) {
      (void)vseRelease(handle);
      handle = make_handle(folder);
    }
    table.show("  handles renewed", "VmRSS");
  }
}

}  // namespace

int main(int argc, char** argv) {
  const long signatures = argc == 3 ? std::atol(argv[1]) : 0;
  const long handles = argc == 3 ? std::atol(argv[2]) : 0;
  if (signatures < 2 || handles < 1) {
    die("usage: engine_memory SIGNATURES HANDLES");
  }
  const Folder folder;
  write_definitions(folder, static_cast<std::uint64_t>(signatures));
  if (vseGlobalInit(nullptr) != VSE_OK) {
    die("no engine");
  }
  measure(folder, static_cast<std::size_t>(handles));
  (void)vseGlobalRelease();
}
