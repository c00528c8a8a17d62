#include "recorded_syslog.h"

#include <syslog.h>

#include <cstdarg>
#include <cstdio>
#include <mutex>

namespace {

std::mutex mutex;
std::vector<std::string> calls;

void add(const std::string& call) {
  const std::lock_guard lock(mutex);
  calls.push_back(call);
}

}  // namespace

std::vector<std::string> syslog_calls() {
  const std::lock_guard lock(mutex);
  return calls;
}

// These stand before the C library's in the program that links them.

void openlog(const char* ident, int option, int facility) {
  add(std::string("openlog ") + ident + " " + std::to_string(option) + " " +
      std::to_string(facility));
}

void syslog(int priority, const char* format, ...) {
  char text[256];
  std::va_list arguments;
  va_start(arguments, format);
  (void)std::vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  add("syslog " + std::to_string(priority) + " " + text);
}

void closelog() {
  add("closelog");
}
