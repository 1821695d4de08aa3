#include "refhost/check/plain_copies.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <limits>
#include <stdexcept>

#include "refhost/store/store_error.h"

namespace zefs::refhost {

PlainCopies::PlainCopies(const std::string& path)
    : file_(FileHandle::Open(path, O_RDWR | O_CREAT | O_EXCL)) {}

bool PlainCopies::Fits(std::int64_t room) const {
  return room < std::numeric_limits<std::int64_t>::max() - kCopyAlignment - end_;
}

PlainCopies::Copy PlainCopies::Begin(std::int64_t room) {
  Copy copy;
  copy.base_ = end_;
  copy.room_ = room;
  end_ += (room + kCopyAlignment - 1) / kCopyAlignment * kCopyAlignment;
  return copy;
}

void PlainCopies::Apply(const Change& change, Copy* copy) {
  if (change.kind == Change::Kind::kWrite) {
    Write(change.offset, change.bytes, copy);
  } else {
    GrowTo(change.offset, copy);
    copy->size_ = change.offset;
  }
}

void PlainCopies::Write(std::int64_t offset, std::string_view bytes, Copy* copy) {
  const std::int64_t end = offset + static_cast<std::int64_t>(bytes.size());
  if (end > copy->room_) {
    throw std::length_error("a copy outgrows its room of " + std::to_string(copy->room_));
  }
  GrowTo(offset, copy);
  file_.WriteAt(copy->base_ + offset, bytes);
  copy->size_ = std::max(copy->size_, end);
}

/// Fills up to `size`, if that is behind the end: a cut may have left old bytes there.
void PlainCopies::GrowTo(std::int64_t size, Copy* copy) {
  if (size > copy->room_) {
    throw std::length_error("a copy outgrows its room of " + std::to_string(copy->room_));
  }
  if (size > copy->size_) {
    const std::string zeros(static_cast<std::size_t>(size - copy->size_), '\0');
    file_.WriteAt(copy->base_ + copy->size_, zeros);
    copy->size_ = size;
  }
}

std::size_t PlainCopies::Read(const Copy& copy, std::int64_t offset, char* out,
                              std::size_t size) const {
  const std::int64_t left = std::max<std::int64_t>(copy.size_ - offset, 0);
  const std::size_t wanted = std::min(size, static_cast<std::size_t>(left));
  if (file_.ReadAt(copy.base_ + offset, out, wanted) != wanted) {
    throw SystemError("read", file_.path(), EIO);
  }
  return wanted;
}

}  // namespace zefs::refhost
