#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "tests/persistent/lifecycle_fixture.h"

// What a merge writes, worked out byte by byte.

namespace zefs::test {

inline std::int64_t StartOf(const PlainRecord& record) {
  std::int64_t start = 0;
  std::memcpy(&start, record.value.data(), sizeof(start));
  return start;
}

/// What stays of a record between `start` and `end`: the record itself if that is all of it.
inline PlainRecord PieceOf(const PlainRecord& record, std::int64_t start, std::int64_t end) {
  constexpr std::size_t kObjectOffsetAt = 48;
  const std::int64_t whole = StartOf(record);
  if (start == whole && end == record.key) {
    return record;
  }
  PlainRecord piece{end, record.value};
  piece.value.resize(EntryBytes({}).size(), '\0');
  std::uint32_t objectOffset = 0;
  std::memcpy(&objectOffset, piece.value.data() + kObjectOffsetAt, sizeof(objectOffset));
  objectOffset += static_cast<std::uint32_t>(start - whole);
  std::memcpy(piece.value.data() + kObjectOffsetAt, &objectOffset, sizeof(objectOffset));
  std::memcpy(piece.value.data(), &start, sizeof(start));
  return piece;
}

/// The union of two databases, each of disjoint extents in order within [0, `domain`), of which the
/// incremental one hides what lies under it.
inline Records UnionOf(const Records& full, const Records& incremental, std::int64_t domain) {
  std::vector<const PlainRecord*> shown(static_cast<std::size_t>(domain) + 1);  // null: a hole
  for (const Records* layer : {&full, &incremental}) {
    for (const PlainRecord& record : *layer) {
      for (std::int64_t at = StartOf(record); at < record.key; ++at) {
        shown.at(static_cast<std::size_t>(at)) = &record;
      }
    }
  }
  Records pieces;
  std::size_t begin = 0;
  for (std::size_t at = 1; at < shown.size(); ++at) {
    if (shown[at] != shown[begin]) {
      if (shown[begin] != nullptr) {
        pieces.push_back(PieceOf(*shown[begin], static_cast<std::int64_t>(begin),
                                 static_cast<std::int64_t>(at)));
      }
      begin = at;
    }
  }
  return pieces;
}

}  // namespace zefs::test
