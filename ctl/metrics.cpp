#include "metrics.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "descriptor.h"
#include "held_signals.h"

namespace {

template <typename Number>
std::string metric(const char* name, const char* type, const char* help, Number value) {
  return fmt::format("# HELP pelowatchd_{0} {2}\n# TYPE pelowatchd_{0} {1}\npelowatchd_{0} {3}\n",
                     name, type, help, value);
}

std::string process_metrics(const ProcessFacts& process) {
  return metric("start_time_seconds", "gauge", "When the daemon was started, in Unix time.",
                static_cast<std::int64_t>(process.started)) +
         metric("cpu_seconds_total", "counter", "Processor time used by the daemon.",
                process.cpu_seconds) +
         metric("resident_memory_bytes", "gauge", "Memory of the daemon that is in use.",
                process.resident_bytes);
}

std::string area_metrics(const DaemonStatus& status) {
  return metric("answered_events_total", "counter", "Events answered, allowed or denied.",
                status.counters.answered) +
         metric("denied_events_total", "counter",
                "Events answered with a denial: opens, and closes after writing, of files in "
                "which something was found.",
                status.counters.denied) +
         metric("trusted_processes", "gauge", "Processes whose accesses are never held.",
                status.trusted.size()) +
         metric("watched_mounts", "gauge", "Mount points that are watched.", status.mounts.size()) +
         metric("scheduled_jobs", "gauge", "Scheduled scans in the list.", status.jobs.size());
}

int write_all(int fd, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = write(fd, text.data(), text.size());
    if (written < 0) {
      return errno;
    }
    text.remove_prefix(static_cast<std::size_t>(written));
  }
  return 0;
}

// A device or a link, such as /dev/stdout, is not to be replaced by a file.
bool is_file_or_nothing(const std::string& path) {
  struct stat status {};
  return lstat(path.c_str(), &status) != 0 || S_ISREG(status.st_mode);
}

int replace_file(const std::string& path, const std::string& text) {
  std::string temporary = path + ".XXXXXX";
  const Descriptor file(mkostemp(temporary.data(), O_CLOEXEC));
  if (!file) {
    return errno;
  }
  int error = write_all(file.get(), text);
  if (error == 0 && (fchmod(file.get(), 0644) != 0 || fsync(file.get()) != 0 ||
                     rename(temporary.c_str(), path.c_str()) != 0)) {
    error = errno;
  }
  if (error != 0) {
    (void)unlink(temporary.c_str());
  }
  return error;
}

}  // namespace

std::string metrics_text(const DaemonStatus& status) {
  std::string text = metric("up", "gauge", "Whether the daemon runs.", status.running() ? 1 : 0);
  if (!status.running()) {
    return text;
  }
  text += process_metrics(*status.process);
  if (status.has_area) {
    text += area_metrics(status);
  }
  if (status.log) {
    text += metric("log_size_bytes", "gauge", "Size of the log file.", status.log->bytes);
  }
  return text + metric("log_texts_dropped_total", "counter", "Log texts that AsyncLogging dropped.",
                       status.dropped_texts);
}

std::string write_atomically(const std::string& path, const std::string& text) {
  if (!is_file_or_nothing(path)) {
    return "it is not a plain file";
  }
  const HeldSignals signals;
  const int error = replace_file(path, text);
  return error == 0 ? "" : std::strerror(error);
}
