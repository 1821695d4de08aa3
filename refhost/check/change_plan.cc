#include "refhost/check/change_plan.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <random>
#include <utility>

namespace zefs::refhost {

namespace {

/// The least reach of a change, so that short files are changed too.
constexpr std::int64_t kMinReach = 64;

/// The longest piece that a change writes on one side of a boundary, or behind the end.
std::int64_t ReachOf(std::int64_t fileSize, std::uint32_t segmentSize) {
  return std::clamp<std::int64_t>(fileSize, kMinReach, segmentSize);
}

/// Draws the changes of one file and follows its size.
class Planner {
 public:
  Planner(std::int64_t fileSize, std::uint32_t segmentSize, std::uint64_t seed)
      : segment_(segmentSize),
        reach_(ReachOf(fileSize, segmentSize)),
        size_(fileSize),
        random_(seed) {}

  /// From inside one segment to inside a later one; inside the file's only segment if it has no
  /// more.
  void OverwriteAcrossBoundary() {
    if (size_ <= segment_) {
      const std::int64_t from = Between(0, std::max<std::int64_t>(size_ - 1, 0));
      Write(from, Between(1, std::max<std::int64_t>(size_ - from, 1)));
      return;
    }
    const std::int64_t boundary = segment_ * Between(1, (size_ - 1) / segment_);
    const std::int64_t from = boundary - Between(1, reach_);
    const std::int64_t to = std::min(boundary + Between(1, reach_), size_);
    Write(from, to - from);
  }

  void Append() { Write(size_, Between(1, reach_)); }
  void CutTail() { Truncate(Between(size_ / 2, size_)); }
  void GrowWithoutData() { Truncate(size_ + Between(1, 2 * reach_)); }

  void WriteBehindEnd() {
    const std::int64_t end = size_;
    Write(size_ + Between(1, 2 * reach_), Between(1, reach_));
    Write(std::max<std::int64_t>(end - Between(0, reach_ / 2), 0), Between(1, reach_));
  }

  bool Coin() { return (random_() & 1) != 0; }
  std::vector<Change> Take() { return std::move(changes_); }

 private:
  /// Uniform enough, and the same everywhere; both ends are included.
  std::int64_t Between(std::int64_t low, std::int64_t high) {
    const auto choices = static_cast<std::uint64_t>(high - low) + 1;
    return low + static_cast<std::int64_t>(random_() % choices);
  }

  void Write(std::int64_t offset, std::int64_t length) {
    changes_.push_back({Change::Kind::kWrite, offset, Data(static_cast<std::size_t>(length))});
    size_ = std::max(size_, offset + length);
  }

  void Truncate(std::int64_t size) {
    changes_.push_back({Change::Kind::kTruncate, size, {}});
    size_ = size;
  }

  /// Mostly data that is nowhere else, sometimes a run of one byte, which is deduplicated.
  std::string Data(std::size_t length) {
    if (Between(0, 3) == 0) {
      return std::string(length, static_cast<char>(Between('a', 'd')));
    }
    std::string bytes(length, '\0');
    for (std::size_t at = 0; at < length; at += sizeof(std::uint64_t)) {
      const std::uint64_t word = random_();
      std::memcpy(bytes.data() + at, &word, std::min(sizeof word, length - at));
    }
    return bytes;
  }

  const std::int64_t segment_;
  const std::int64_t reach_;
  std::int64_t size_;
  std::mt19937_64 random_;
  std::vector<Change> changes_;
};

}  // namespace

std::vector<Change> PlanChanges(std::int64_t fileSize, std::uint32_t segmentSize,
                                std::uint64_t seed) {
  Planner plan(fileSize, segmentSize, seed);
  plan.OverwriteAcrossBoundary();
  plan.Append();
  plan.OverwriteAcrossBoundary();
  plan.CutTail();
  plan.WriteBehindEnd();
  if (plan.Coin()) {
    plan.GrowWithoutData();
  }
  plan.OverwriteAcrossBoundary();
  return plan.Take();
}

std::int64_t LargestSize(std::int64_t fileSize, std::uint32_t segmentSize) {
  // One reach from the append, three from the write behind the end, two from the growth without
  // data, and single bytes where an empty file is overwritten. A reach is at most a segment.
  const std::int64_t growth = kMostGrowthInSegments * ReachOf(fileSize, segmentSize);
  constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();
  return fileSize > kMax - growth ? kMax : fileSize + growth;
}

}  // namespace zefs::refhost
