#include "refhost/host/log_recorder.h"

#include <mutex>
#include <utility>

#include <spdlog/sinks/base_sink.h>

#include "refhost/host/log_router.h"

namespace zefs::refhost {

/// Keeps what passes through it. The base class holds its mutex around sink_it_.
class RecordingSink final : public spdlog::sinks::base_sink<std::mutex> {
 public:
  std::vector<LogRecord> Take() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return std::exchange(records_, {});
  }

 protected:
  void sink_it_(const spdlog::details::log_msg& message) override {
    records_.push_back({FromSpdlogLevel(message.level),
                        std::string(message.payload.data(), message.payload.size())});
  }
  void flush_() override {}

 private:
  std::vector<LogRecord> records_;
};

LogRecorder::LogRecorder(int minimum) : sink_(std::make_shared<RecordingSink>()) {
  // A line that passed the former filter while this one was being put in place is held back here.
  sink_->set_level(minimum > kLogFailure ? spdlog::level::off : ToSpdlogLevel(minimum));
  LogRouter::Get().PushRecorder(sink_, minimum);
}

LogRecorder::~LogRecorder() {
  LogRouter::Get().PopRecorder();
}

std::vector<LogRecord> LogRecorder::Take() {
  return sink_->Take();
}

}  // namespace zefs::refhost
