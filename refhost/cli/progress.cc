#include "refhost/cli/progress.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <unistd.h>

#include "refhost/cli/report.h"

namespace zefs::refhost {

namespace {

constexpr std::chrono::milliseconds kBetweenDrawings{100};
constexpr std::size_t kBarWidth = 30;
constexpr double kSecondsBeforeEstimate = 2;

}  // namespace

ProgressBar::ProgressBar() : ProgressBar(STDERR_FILENO, ::isatty(STDERR_FILENO) == 1) {}

ProgressBar::ProgressBar(int fd, bool draw) : fd_(fd), draw_(draw) {}

void ProgressBar::Update(std::string_view phase, std::uint64_t done, std::uint64_t total) {
  if (!draw_) {
    return;
  }
  const Clock::time_point now = Clock::now();
  const bool first = phase_ != phase;
  if (first) {
    phase_ = phase;
    phaseStart_ = now;
  }
  const bool last = total != 0 && done >= total;
  if (first || last || now - lastDrawn_ >= kBetweenDrawings) {
    lastDrawn_ = now;
    Draw(done, total, std::chrono::duration<double>(now - phaseStart_).count());
  }
}

void ProgressBar::Draw(std::uint64_t done, std::uint64_t total, double seconds) {
  const double part =
      total == 0 ? 0 : std::min(1.0, static_cast<double>(done) / static_cast<double>(total));
  const auto filled = static_cast<std::size_t>(part * static_cast<double>(kBarWidth));
  std::array<char, 160> line{};
  std::snprintf(line.data(), line.size(), "\r\033[K%-8s [%s%s] %3d%%", phase_.c_str(),
                std::string(filled, '#').c_str(), std::string(kBarWidth - filled, '.').c_str(),
                static_cast<int>(part * 100));
  std::string text = line.data();
  if (part > 0 && part < 1 && seconds >= kSecondsBeforeEstimate) {
    text += "  " + FormatSeconds(seconds / part - seconds) + " left";
  }
  Print(text);
  drawn_ = true;
}

void ProgressBar::Clear() {
  if (drawn_) {
    Print("\r\033[K");
    drawn_ = false;
  }
}

/// A bar that cannot be drawn is no reason to stop.
void ProgressBar::Print(const std::string& text) const {
  [[maybe_unused]] const ssize_t written = ::write(fd_, text.data(), text.size());
}

}  // namespace zefs::refhost
