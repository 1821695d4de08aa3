#pragma once

#include <atomic>
#include <cstddef>
#include <memory>
#include <mutex>
#include <vector>

#include <spdlog/logger.h>
#include <spdlog/sinks/dist_sink.h>

#include "host/zefs_log.h"

namespace zefs::refhost {

/// A library level as the logging library's, and back. Anything that is no zefs::LogLevel counts as
/// the next lower one.
spdlog::level::level_enum ToSpdlogLevel(int level);
int FromSpdlogLevel(spdlog::level::level_enum level);

/// The one logger, and the choice of the sink that it feeds: the youngest recorder, or else the
/// output. Thread-safe; lives to the very end of the process, so that any thread may log at any
/// time.
class LogRouter {
 public:
  static LogRouter& Get();

  /// The filter in front of everything: nothing below it is formatted.
  static bool Enabled(int level) { return level >= minimum_.load(std::memory_order_relaxed); }

  /// Hands a finished line to the sink, without looking at Enabled. Never throws.
  void Write(int level, const char* text, std::size_t size);

  void SetOutput(spdlog::sink_ptr sink);
  void SetOutputMinimum(int minimum);

  /// From now on all lines from `minimum` up go to `sink`, until Pop.
  void PushRecorder(spdlog::sink_ptr sink, int minimum);
  void PopRecorder();

 private:
  struct Route {
    spdlog::sink_ptr sink;
    int minimum;
  };

  LogRouter();
  void Apply();

  static inline std::atomic<int> minimum_{kLogRecoverable};
  std::shared_ptr<spdlog::sinks::dist_sink_mt> switch_;  // holds the sink in use
  spdlog::logger logger_;

  std::mutex mutex_;           // guards what follows
  std::vector<Route> routes_;  // the output, then the recorders by age
};

}  // namespace zefs::refhost
