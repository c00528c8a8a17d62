#include "fuse_server.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/fuse.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <new>
#include <sstream>
#include <vector>

#include "emulated.h"
#include "world.h"

namespace e2e {
namespace {

constexpr uint64_t kRoot = FUSE_ROOT_ID;
constexpr uint64_t kFile = 2;
constexpr uint64_t kLong = 3600;  // seconds
constexpr char kContent[] = "clean\n";

/// One request after the other, until the mount or the server is gone.
class Server {
 public:
  Server(int device, const std::string& backing_file, BackingUse use,
         const std::atomic<bool>& opens_hang)
      : device_(device), backing_file_(backing_file), use_(use), opens_hang_(opens_hang) {}

  int run() {
    std::vector<char> buffer(1 << 18);
    for (;;) {
      const ssize_t size = read(device_, buffer.data(), buffer.size());
      if (size >= static_cast<ssize_t>(sizeof request_)) {
        std::memcpy(&request_, buffer.data(), sizeof request_);
        serve();
      } else if (size >= 0 || (errno != EINTR && errno != ENOENT)) {
        return 0;
      }
    }
  }

 private:
  void serve() {
    switch (request_.opcode) {
      case FUSE_INIT:
        return initialize();
      case FUSE_LOOKUP:
        use_backing_file_on_walks();
        return look_up();
      case FUSE_GETATTR:
        use_backing_file_on_walks();
        return get_attributes();
      case FUSE_OPEN:
        return open_file();
      case FUSE_READ:
        return reply_bytes(0, kContent, sizeof kContent - 1);
      case FUSE_RELEASE:
      case FUSE_FLUSH:
        return reply_bytes(0, nullptr, 0);
      case FUSE_FORGET:
      case FUSE_BATCH_FORGET:
      case FUSE_INTERRUPT:
        return;  // nobody waits for a reply
      default:
        return reply_bytes(-ENOSYS, nullptr, 0);
    }
  }

  void initialize() {
    fuse_init_out out{};
    out.major = FUSE_KERNEL_VERSION;
    out.minor = 31;
    out.max_readahead = 65536;
    out.max_background = 12;
    out.congestion_threshold = 9;
    out.max_write = 65536;
    out.time_gran = 1;
    reply(out);
  }

  void open_file() {
    if (opens_hang_) {
      return;
    }
    if (use_ != BackingUse::never) {
      use_backing_file();
    }
    reply(fuse_open_out{});
  }

  // Nothing stays valid where the backing file is used, so that every walk asks again.
  uint64_t validity() const { return use_ == BackingUse::never ? kLong : 0; }

  void look_up() {
    fuse_entry_out out{};
    out.entry_valid = validity();
    out.attr_valid = validity();
    out.nodeid = kFile;
    out.generation = 1;
    out.attr = attributes(kFile);
    reply(out);
  }

  void get_attributes() {
    fuse_attr_out out{};
    out.attr_valid = validity();
    out.attr = attributes(request_.nodeid);
    reply(out);
  }

  static fuse_attr attributes(uint64_t node) {
    fuse_attr result{};
    result.ino = node;
    result.mode = node == kRoot ? S_IFDIR | 0755 : S_IFREG | 0644;
    result.size = node == kRoot ? 0 : sizeof kContent - 1;
    result.nlink = 1;
    result.blksize = 4096;
    return result;
  }

  void use_backing_file_on_walks() {
    if (use_ == BackingUse::opens_and_walks) {
      use_backing_file();
    }
  }
  void use_backing_file() { (void)try_open(backing_file_); }

  template <typename Body>
  void reply(const Body& body) {
    reply_bytes(0, &body, sizeof body);
  }

  void reply_bytes(int error, const void* body, size_t size) {
    fuse_out_header header{};
    header.len = static_cast<uint32_t>(sizeof header + size);
    header.error = error;
    header.unique = request_.unique;
    std::vector<char> message(sizeof header + size);
    std::memcpy(message.data(), &header, sizeof header);
    if (size > 0) {
      std::memcpy(message.data() + sizeof header, body, size);
    }
    (void)!write(device_, message.data(), message.size());
  }

  int device_;
  std::string backing_file_;
  BackingUse use_;
  const std::atomic<bool>& opens_hang_;
  fuse_in_header request_{};
};

std::atomic<bool>* make_shared_flag() {
  void* place = mmap(nullptr, sizeof(std::atomic<bool>), PROT_READ | PROT_WRITE,
                     MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  return new (place) std::atomic<bool>(false);
}

}  // namespace

void stop_wholly(const Process& process) {
  process.signal(SIGSTOP);
  const std::string threads = "/proc/" + std::to_string(process.pid()) + "/task";
  EXPECT_TRUE(eventually([&] {
    for (const auto& thread : std::filesystem::directory_iterator(threads)) {
      std::ifstream file(thread.path() / "stat");
      const std::string stat{std::istreambuf_iterator<char>(file), {}};
      if (stat.find(") T ") == std::string::npos) {
        return false;
      }
    }
    return true;
  }));
}

FuseServer::FuseServer(const std::string& folder, const std::string& backing_file, BackingUse use,
                       uid_t user)
    : folder_(folder),
      device_(open("/dev/fuse", O_RDWR | O_CLOEXEC)),
      opens_hang_(make_shared_flag()) {
  World::make_folder(folder);
  const std::string options = "fd=" + std::to_string(device_) +
                              ",rootmode=40000,group_id=0,user_id=" + std::to_string(user) +
                              (user == 0 ? ",allow_other" : "");
  if (device_ < 0 ||
      mount("test", folder.c_str(), "fuse", MS_NOSUID | MS_NODEV, options.c_str()) != 0) {
    failure_ = std::string("no file system in user space: ") + std::strerror(errno);
    return;
  }
  server_.emplace([&] { return Server(device_, backing_file, use, *opens_hang_).run(); });
  close(device_);  // the server's copy is the last one, so that the mount ends with it
  device_ = -1;
}

FuseServer::~FuseServer() {
  if (device_ >= 0) {
    close(device_);
  }
  if (server_) {
    end();
    umount2(folder_.c_str(), MNT_DETACH);
  }
  munmap(opens_hang_, sizeof *opens_hang_);
}

void FuseServer::end() {
  if (server_) {
    server_->kill();
  }
}

ServedFolder::ServedFolder(const std::string& folder, const std::vector<std::string>& command)
    : folder_(folder), server_([&] {
        World::make_folder(folder);
        std::vector<char*> words;
        for (const std::string& word : command) {
          words.push_back(const_cast<char*>(word.c_str()));
        }
        words.push_back(nullptr);
        execvp(words[0], words.data());
        return 127;
      }) {
  const std::string entry = " " + folder + " fuse";
  const auto mounted = [&] {
    std::ostringstream table;
    table << std::ifstream("/proc/self/mounts").rdbuf();
    return table.str().find(entry) != std::string::npos;
  };
  if (!eventually([&] { return mounted() || !server_.running(); }) || !server_.running()) {
    failure_ = command[0] + " does not serve " + folder;
  }
}

ServedFolder::~ServedFolder() {
  end();
}

void ServedFolder::end() {
  server_.kill();
  umount2(folder_.c_str(), MNT_DETACH);
}

void require(const FuseServer& server) {
  if (!server.failure().empty() && std::getenv("CI") == nullptr) {
    GTEST_SKIP() << server.failure();
  }
  ASSERT_EQ(server.failure(), "");
  ASSERT_EQ(open_status(server.file()), 0);
}

void require(const ServedFolder& folder) {
  if (!folder.failure().empty() && (std::getenv("CI") == nullptr || PELO_EMULATED != 0)) {
    GTEST_SKIP() << folder.failure();
  }
  ASSERT_EQ(folder.failure(), "");
}

}  // namespace e2e
