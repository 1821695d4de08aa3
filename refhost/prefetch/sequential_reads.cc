#include "refhost/prefetch/sequential_reads.h"

#include <algorithm>

namespace zefs::refhost {

std::optional<FileRange> SequentialReads::Note(const FileRange& read, std::int64_t size) {
  if (window_ <= 0) {
    return std::nullopt;
  }
  const std::lock_guard<std::mutex> lock(mutex_);
  auto reader = std::find_if(readers_.begin(), readers_.end(),
                             [&](const Reader& one) { return one.next == read.start; });
  const bool goesOn = reader != readers_.end();
  if (!goesOn) {
    reader =
        std::min_element(readers_.begin(), readers_.end(),
                         [](const Reader& a, const Reader& b) { return a.lastRead < b.lastRead; });
    reader->prepared = 0;
  }
  reader->next = read.end;
  reader->lastRead = ++reads_;
  const std::int64_t from = std::max(reader->prepared, read.start);
  const bool halfIsAhead = from - read.end >= window_ / 2;
  if (!goesOn || from >= size || halfIsAhead) {
    return std::nullopt;
  }
  const std::int64_t left = std::max<std::int64_t>(size - read.end, 0);
  reader->prepared = read.end + std::min(left, window_);
  return FileRange{from, reader->prepared};
}

}  // namespace zefs::refhost
