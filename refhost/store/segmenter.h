#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace zefs::refhost {

inline constexpr std::uint32_t kDefaultSegmentSize = 16 * 1024;
inline constexpr std::uint32_t kMinSegmentSize = 512;
inline constexpr std::uint32_t kMaxSegmentSize = 1024 * 1024;

/// A piece of a write that lies in one segment: the logical range [offset, offset + length).
struct Segment {
  std::int64_t offset;
  std::uint32_t length;
};

/// Why `size` is no segment size, in one line; empty if it is one: a power of two from
/// kMinSegmentSize to kMaxSegmentSize.
std::string SegmentSizeProblem(std::uint64_t size);

/// Cuts file data at the multiples of the segment size, so that equal data at equal places inside a
/// segment gives equal pieces, whatever the size of the writes.
class Segmenter {
 public:
  /// Throws std::invalid_argument with the text of SegmentSizeProblem.
  explicit Segmenter(std::uint64_t segmentSize);

  std::uint32_t segmentSize() const { return segmentSize_; }

  /// The pieces of [offset, offset + length), in order. Both are not negative, and their sum is
  /// within the range of a signed 64-bit offset.
  std::vector<Segment> Cut(std::int64_t offset, std::int64_t length) const;

 private:
  std::uint32_t segmentSize_;
};

}  // namespace zefs::refhost
