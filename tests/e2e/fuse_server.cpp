#include "fuse_server.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/fuse.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <vector>

#include "emulated.h"
#include "temp_directory.h"
#include "world.h"

namespace e2e {
namespace {

constexpr uint64_t root_node = FUSE_ROOT_ID;
constexpr uint64_t file_node = 2;
constexpr char served_content[] = "clean\n";

/// One request after the other, until the mount or the server is gone.
class Server {
 public:
  Server(int device, const std::string& backing_file, const std::atomic<bool>& opens_hang)
      : device_(device), backing_file_(backing_file), opens_hang_(opens_hang) {}

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
        return look_up();
      case FUSE_GETATTR:
        return get_attributes();
      case FUSE_OPEN:
        return open_file();
      case FUSE_READ:
        return reply_bytes(0, served_content, sizeof served_content - 1);
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
    (void)try_open(backing_file_);
    reply(fuse_open_out{});
  }

  // Nothing stays valid, so that every walk asks again.
  void look_up() {
    fuse_entry_out out{};
    out.nodeid = file_node;
    out.generation = 1;
    out.attr = attributes(file_node);
    reply(out);
  }

  void get_attributes() {
    fuse_attr_out out{};
    out.attr = attributes(request_.nodeid);
    reply(out);
  }

  static fuse_attr attributes(uint64_t node) {
    fuse_attr result{};
    result.ino = node;
    result.mode = node == root_node ? S_IFDIR | 0755 : S_IFREG | 0644;
    result.size = node == root_node ? 0 : sizeof served_content - 1;
    result.nlink = 1;
    result.blksize = 4096;
    return result;
  }

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
  const std::atomic<bool>& opens_hang_;
  fuse_in_header request_{};
};

}  // namespace

FileServer::FileServer(const std::string& folder, bool of_a_program)
    : folder_(folder), of_a_program_(of_a_program) {
  World::make_folder(folder);
}

FileServer::~FileServer() {
  end();
  umount2(folder_.c_str(), MNT_DETACH);
}

void FileServer::require() const {
  if (!failure_.empty() &&
      (std::getenv("CI") == nullptr || (of_a_program_ && PELO_EMULATED != 0))) {
    GTEST_SKIP() << failure_;
  }
  ASSERT_EQ(failure_, "");
}

void FileServer::hang() const {
  server_->signal(SIGSTOP);
  const std::string threads = "/proc/" + std::to_string(server_->pid()) + "/task";
  EXPECT_TRUE(eventually([&] {
    const std::filesystem::directory_iterator all(threads);
    return std::all_of(all, {}, [](const auto& thread) {
      return status_value(thread.path(), "State").starts_with("T");
    });
  }));
}

void FileServer::end() {
  if (server_) {
    server_->kill_and_reap();
  }
}

FuseServer::FuseServer(const std::string& folder, const std::string& backing_file,
                       const std::string& owner)
    : FileServer(folder, false) {
  const int device = open("/dev/fuse", O_RDWR | O_CLOEXEC);
  const std::string options = "fd=" + std::to_string(device) + ",rootmode=40000," + owner;
  if (device < 0 ||
      mount("test", folder.c_str(), "fuse", MS_NOSUID | MS_NODEV, options.c_str()) != 0) {
    failure_ = std::string("no file system in user space: ") + std::strerror(errno);
  } else {
    server_.emplace([&] { return Server(device, backing_file, *opens_hang_).run(); });
  }
  close(device);  // the server's copy is the last one, so that the mount ends with it
}

ServedFolder::ServedFolder(const std::string& folder, const std::vector<std::string>& command)
    : FileServer(folder, true) {
  server_.emplace([&]() -> int { execute(command); });
  const std::string entry = " " + folder + " fuse";
  const auto mounted = [&] {
    return read_file("/proc/self/mounts").find(entry) != std::string::npos;
  };
  if (!eventually([&] { return mounted() || !server_->running(); }) || !server_->running()) {
    failure_ = command[0] + " does not serve " + folder;
  }
}

}  // namespace e2e
