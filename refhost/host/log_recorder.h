#pragma once

#include <memory>
#include <string>
#include <vector>

#include "host/zefs_log.h"

namespace zefs::refhost {

class RecordingSink;

/// One line as it was given to ZEFS_LOG, without any decoration.
struct LogRecord {
  int level = kLogTrace;  ///< a zefs::LogLevel
  std::string text;
};

inline bool operator==(const LogRecord& a, const LogRecord& b) {
  return a.level == b.level && a.text == b.text;
}

/// Keeps log lines in memory. While it lives, every line from `minimum` up goes to it and nowhere
/// else, and every other line is dropped, whatever SetLogLevel said. Of several recorders only the
/// youngest receives; the next older one resumes when that is gone. Lines that another thread was
/// writing at the very start or end may still go to the former place.
///
/// Thread-safe. Recorders are destroyed in the reverse order of their making.
class LogRecorder {
 public:
  explicit LogRecorder(int minimum = kLogTrace);
  ~LogRecorder();
  LogRecorder(const LogRecorder&) = delete;
  LogRecorder& operator=(const LogRecorder&) = delete;

  /// The lines so far, in the order of their arrival. Forgets them.
  std::vector<LogRecord> Take();

 private:
  std::shared_ptr<RecordingSink> sink_;
};

}  // namespace zefs::refhost
