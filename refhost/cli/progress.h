#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

namespace zefs::refhost {

/// A bar on standard error for long work, drawn only if that is a terminal and at most ten times a
/// second. Removed again when the work ends or this object is destroyed, so that what is printed
/// next starts on a clean line. Not synchronised.
class ProgressBar {
 public:
  ProgressBar();

  /// For tests: draws on the descriptor `fd` if `draw` says so.
  ProgressBar(int fd, bool draw);

  ~ProgressBar() { Clear(); }
  ProgressBar(const ProgressBar&) = delete;
  ProgressBar& operator=(const ProgressBar&) = delete;

  /// Tells that `done` of `total` of the phase are done. A total of 0 is a phase without a measure.
  /// The start and the end of a phase are drawn at once.
  void Update(std::string_view phase, std::uint64_t done, std::uint64_t total);

  /// Removes the bar from the terminal.
  void Clear();

 private:
  void Draw(std::uint64_t done, std::uint64_t total, double seconds);
  void Print(const std::string& text) const;

  using Clock = std::chrono::steady_clock;

  int fd_;
  bool draw_;
  bool drawn_ = false;
  std::string phase_;
  Clock::time_point phaseStart_;
  Clock::time_point lastDrawn_;
};

}  // namespace zefs::refhost
