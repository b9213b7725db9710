#pragma once

#include <cstdarg>
#include <string>

namespace kelvaron {

// A log of one subsystem and category, e.g. ("io.dovka.tovu.host", "session"). Lines go to the
// systemd journal with SUBSYSTEM and CATEGORY fields when a journal is there, else to stderr.
// Formats are printf's.
class Logger {
 public:
  Logger(std::string subsystem, std::string category)
      : subsystem_(std::move(subsystem)), category_(std::move(category)) {}

  void debug(const char* format, ...) const __attribute__((format(printf, 2, 3)));
  void info(const char* format, ...) const __attribute__((format(printf, 2, 3)));
  void error(const char* format, ...) const __attribute__((format(printf, 2, 3)));

 private:
  void write(int priority, const char* format, va_list args) const;

  std::string subsystem_;
  std::string category_;
};

}  // namespace kelvaron
