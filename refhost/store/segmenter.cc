#include "refhost/store/segmenter.h"

#include <algorithm>
#include <stdexcept>

namespace zefs::refhost {

std::string SegmentSizeProblem(std::uint64_t size) {
  const bool powerOfTwo = size != 0 && (size & (size - 1)) == 0;
  if (powerOfTwo && size >= kMinSegmentSize && size <= kMaxSegmentSize) {
    return {};
  }
  return "segment size " + std::to_string(size) + " is not a power of two from " +
         std::to_string(kMinSegmentSize) + " to " + std::to_string(kMaxSegmentSize);
}

Segmenter::Segmenter(std::uint64_t segmentSize)
    : segmentSize_(static_cast<std::uint32_t>(segmentSize)) {
  if (const std::string problem = SegmentSizeProblem(segmentSize); !problem.empty()) {
    throw std::invalid_argument(problem);
  }
}

std::vector<Segment> Segmenter::Cut(std::int64_t offset, std::int64_t length) const {
  std::vector<Segment> pieces;
  pieces.reserve(static_cast<std::size_t>(length / segmentSize_) + 2);
  while (length > 0) {
    const std::int64_t room = segmentSize_ - offset % segmentSize_;
    const std::int64_t piece = std::min(room, length);
    pieces.push_back({offset, static_cast<std::uint32_t>(piece)});
    offset += piece;
    length -= piece;
  }
  return pieces;
}

}  // namespace zefs::refhost
