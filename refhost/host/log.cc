#include "refhost/host/log.h"

#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <utility>

#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/sinks/stdout_color_sinks.h>

#include "refhost/host/log_router.h"

namespace zefs::refhost {

namespace {

/// Most lines of the library fit; longer ones cost an allocation.
constexpr std::size_t kUsualLine = 512;

/// A log call must not change the `errno` that its caller is about to report.
class ErrnoKeeper {
 public:
  ErrnoKeeper() : saved_(errno) {}
  ~ErrnoKeeper() { errno = saved_; }
  ErrnoKeeper(const ErrnoKeeper&) = delete;
  ErrnoKeeper& operator=(const ErrnoKeeper&) = delete;

 private:
  int saved_;
};

/// The road of a line that is wanted; away from the check, which is all that most calls come to.
__attribute__((noinline, format(printf, 2, 0))) void WriteLine(int level, const char* format,
                                                               va_list arguments) {
  const ErrnoKeeper keepErrno;
  std::array<char, kUsualLine> usual;
  std::unique_ptr<char[]> large;
  const char* text = usual.data();
  va_list again;
  va_copy(again, arguments);
  const int needed = vsnprintf(usual.data(), usual.size(), format, arguments);
  auto size = static_cast<std::size_t>(needed);
  if (needed < 0) {  // no text could be made of it: the format is better than nothing
    text = format;
    size = strlen(format);
  } else if (size >= usual.size()) {
    large.reset(new (std::nothrow) char[size + 1]);
    if (large != nullptr) {
      vsnprintf(large.get(), size + 1, format, again);
      text = large.get();
    } else {
      size = usual.size() - 1;  // the front of the line rather than no line
    }
  }
  va_end(again);
  LogRouter::Get().Write(level, text, size);
}

}  // namespace

spdlog::level::level_enum ToSpdlogLevel(int level) {
  if (level >= kLogFailure) {
    return spdlog::level::err;
  }
  if (level >= kLogRecoverable) {
    return spdlog::level::warn;
  }
  if (level >= kLogRare) {
    return spdlog::level::info;
  }
  return level >= kLogStep ? spdlog::level::debug : spdlog::level::trace;
}

int FromSpdlogLevel(spdlog::level::level_enum level) {
  switch (level) {
    case spdlog::level::trace:
      return kLogTrace;
    case spdlog::level::debug:
      return kLogStep;
    case spdlog::level::info:
      return kLogRare;
    case spdlog::level::warn:
      return kLogRecoverable;
    default:
      return kLogFailure;
  }
}

// --- the router ------------------------------------------------------------------------------

LogRouter& LogRouter::Get() {
  static LogRouter& router = *new LogRouter;  // never destroyed: threads may log during exit
  return router;
}

LogRouter::LogRouter()
    : switch_(std::make_shared<spdlog::sinks::dist_sink_mt>()),
      logger_("zefs", switch_),
      routes_{{std::make_shared<spdlog::sinks::stderr_color_sink_mt>(), kLogRecoverable}} {
  logger_.set_level(spdlog::level::trace);  // Enabled has filtered already
  logger_.flush_on(spdlog::level::warn);
  Apply();
}

void LogRouter::Write(int level, const char* text, std::size_t size) {
  logger_.log(ToSpdlogLevel(level), spdlog::string_view_t(text, size));
}

void LogRouter::SetOutput(spdlog::sink_ptr sink) {
  const std::lock_guard<std::mutex> lock(mutex_);
  routes_.front().sink = std::move(sink);
  Apply();
}

void LogRouter::SetOutputMinimum(int minimum) {
  const std::lock_guard<std::mutex> lock(mutex_);
  routes_.front().minimum = minimum;
  Apply();
}

void LogRouter::PushRecorder(spdlog::sink_ptr sink, int minimum) {
  const std::lock_guard<std::mutex> lock(mutex_);
  routes_.push_back({std::move(sink), minimum});
  Apply();
}

void LogRouter::PopRecorder() {
  const std::lock_guard<std::mutex> lock(mutex_);
  routes_.pop_back();
  Apply();
}

void LogRouter::Apply() {
  switch_->set_sinks({routes_.back().sink});
  minimum_.store(routes_.back().minimum, std::memory_order_relaxed);
}

// --- control ---------------------------------------------------------------------------------

void SetLogLevel(int minimum) {
  LogRouter::Get().SetOutputMinimum(minimum);
}

bool LogEnabled(int level) {
  return LogRouter::Enabled(level);
}

void LogToStderr() {
  LogRouter::Get().SetOutput(std::make_shared<spdlog::sinks::stderr_color_sink_mt>());
}

bool LogToFile(const std::string& path) {
  try {
    LogRouter::Get().SetOutput(std::make_shared<spdlog::sinks::basic_file_sink_mt>(path));
    return true;
  } catch (const spdlog::spdlog_ex&) {
    return false;
  }
}

}  // namespace zefs::refhost

void ZEFS_LOG(int level, const char* format, ...) {
  if (!zefs::refhost::LogRouter::Enabled(level)) {
    return;
  }
  va_list arguments;
  va_start(arguments, format);
  zefs::refhost::WriteLine(level, format, arguments);
  va_end(arguments);
}
