#include "kit/log/Logger.hpp"

#include <syslog.h>
#include <systemd/sd-journal.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

namespace kelvaron {

namespace {

bool journalIsThere() {
  static const bool there = access("/run/systemd/journal/socket", W_OK) == 0;
  return there;
}

// TOVU_LOG=debug shows debug lines; TOVU_LOG=off silences everything (tests and benchmarks).
int threshold() {
  static const int level = [] {
    const char* setting = std::getenv("TOVU_LOG");
    if (!setting) return LOG_INFO;
    const std::string value = setting;
    if (value == "debug") return LOG_DEBUG;
    if (value == "off") return -1;
    return LOG_INFO;
  }();
  return level;
}

}  // namespace

void Logger::write(int priority, const char* format, va_list args) const {
  if (priority > threshold()) return;
  char message[2048];
  std::vsnprintf(message, sizeof message, format, args);
  if (journalIsThere()) {
    sd_journal_send("MESSAGE=%s", message, "PRIORITY=%d", priority, "SUBSYSTEM=%s",
                    subsystem_.c_str(), "CATEGORY=%s", category_.c_str(), nullptr);
    return;
  }
  std::fprintf(stderr, "[%s:%s] %s\n", subsystem_.c_str(), category_.c_str(), message);
}

#define KELVARON_LOG_AT(name, priority)             \
  void Logger::name(const char* format, ...) const { \
    va_list args;                                    \
    va_start(args, format);                          \
    write(priority, format, args);                   \
    va_end(args);                                    \
  }

KELVARON_LOG_AT(debug, LOG_DEBUG)
KELVARON_LOG_AT(info, LOG_INFO)
KELVARON_LOG_AT(error, LOG_ERR)

}  // namespace kelvaron
