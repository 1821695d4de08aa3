#include "refhost/store/container_store.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <fcntl.h>
#include <filesystem>
#include <limits>
#include <stdexcept>
#include <unistd.h>
#include <utility>

#include "refhost/store/store_error.h"
#include "table/extent.h"

namespace zefs::refhost {

namespace {

using Aldenta::Qnd::Morene::Zefs::kFirstDcid;

/// Open containers kept for reading. Reads go mostly to the few containers of one file.
constexpr std::size_t kOpenForReading = 64;

/// Calls `take(id, entry)` for each container in `directory`; names that are no ids are left alone.
template <typename Take>
void ForEachContainer(const std::string& directory, const Take& take) {
  std::error_code error;
  std::filesystem::directory_iterator entry(directory, error);
  for (; !error && entry != std::filesystem::directory_iterator(); entry.increment(error)) {
    const std::string name = entry->path().filename().string();
    std::uint64_t dcid = 0;
    const auto [end, problem] = std::from_chars(name.data(), name.data() + name.size(), dcid);
    if (problem == std::errc() && end == name.data() + name.size()) {
      take(dcid, *entry);
    }
  }
  if (error) {
    throw SystemError("list", directory, error.value());
  }
}

/// The id behind the highest one in `directory`.
std::uint64_t FirstFreeDcid(const std::string& directory) {
  std::uint64_t next = kFirstDcid;
  ForEachContainer(directory, [&next](std::uint64_t dcid, const auto& /*entry*/) {
    next = std::max(next, dcid + 1);
  });
  return next;
}

/// A container that was written before.
FileHandle OpenWritten(const std::string& path) {
  try {
    return FileHandle::Open(path, O_RDONLY);
  } catch (const StoreError& error) {
    if (error.code == ENOENT) {
      throw DamageError("container " + path + " is gone");
    }
    throw;
  }
}

}  // namespace

ContainerStore::ContainerStore(std::string directory, std::uint32_t containerBytes)
    : directory_(std::move(directory)),
      containerBytes_(containerBytes),
      nextDcid_(FirstFreeDcid(directory_)) {
  // A container offset is signed where the table keeps it.
  if (containerBytes == 0 || containerBytes > std::numeric_limits<std::int32_t>::max()) {
    throw std::invalid_argument("container size " + std::to_string(containerBytes) +
                                " is not from 1 to 2147483647");
  }
}

std::string ContainerStore::PathOf(std::uint64_t dcid) const {
  return directory_ + "/" + std::to_string(dcid);
}

ContainerStore::KeptOpen& ContainerStore::WritableFor(std::size_t bytes) {
  const bool full = size_ != 0 && bytes > containerBytes_ - std::min(size_, containerBytes_);
  if (!writing_.has_value() || full) {
    FileHandle file = FileHandle::Open(PathOf(nextDcid_), O_RDWR | O_CREAT | O_EXCL);
    namesSynced_ = false;
    writing_.reset();
    writing_.emplace(KeptOpen{nextDcid_, std::move(file)});
    ++nextDcid_;
    ++containers_;
    size_ = 0;
  }
  return *writing_;
}

Location ContainerStore::Append(std::string_view bytes) {
  KeptOpen& container = WritableFor(bytes.size());
  unsynced_.insert(container.dcid);
  container.file.WriteAt(size_, bytes);  // what a failed append left behind is written over
  const Location where{container.dcid, size_, static_cast<std::uint32_t>(bytes.size())};
  size_ += where.length;
  storedBytes_ += where.length;
  return where;
}

void ContainerStore::Sync() {
  while (!unsynced_.empty()) {
    Readable(*unsynced_.begin()).Sync();
    unsynced_.erase(unsynced_.begin());
  }
  if (!namesSynced_) {
    SyncDirectory(directory_);
    namesSynced_ = true;
  }
}

std::optional<std::uint64_t> ContainerStore::writing() const {
  return writing_.has_value() ? std::optional(writing_->dcid) : std::nullopt;
}

std::map<std::uint64_t, std::uint64_t> ContainerStore::Sizes() const {
  std::map<std::uint64_t, std::uint64_t> sizes;
  ForEachContainer(directory_, [&](std::uint64_t dcid, const auto& entry) {
    std::error_code error;
    sizes[dcid] = entry.file_size(error);
    if (error) {
      throw SystemError("look at", entry.path().string(), error.value());
    }
  });
  return sizes;
}

void ContainerStore::Remove(const std::vector<std::uint64_t>& dcids) {
  for (const std::uint64_t dcid : dcids) {
    if (dcid == writing()) {
      continue;
    }
    // A descriptor would keep the bytes on the disk.
    reading_.erase(std::remove_if(reading_.begin(), reading_.end(),
                                  [dcid](const KeptOpen& one) { return one.dcid == dcid; }),
                   reading_.end());
    unsynced_.erase(dcid);
    if (::unlink(PathOf(dcid).c_str()) != 0 && errno != ENOENT) {
      throw SystemError("remove", PathOf(dcid), errno);
    }
  }
  if (!dcids.empty()) {
    SyncDirectory(directory_);
  }
}

const FileHandle& ContainerStore::Readable(std::uint64_t dcid) const {
  if (writing_.has_value() && writing_->dcid == dcid) {
    return writing_->file;
  }
  const auto open = std::find_if(reading_.begin(), reading_.end(),
                                 [dcid](const KeptOpen& one) { return one.dcid == dcid; });
  if (open != reading_.end()) {
    return open->file;
  }
  reading_.push_front({dcid, OpenWritten(PathOf(dcid))});
  if (reading_.size() > kOpenForReading) {
    reading_.pop_back();
  }
  return reading_.front().file;
}

void ContainerStore::Read(const Location& where, std::uint32_t from, std::uint32_t size,
                          char* out) const {
  const FileHandle& file = Readable(where.dcid);
  const std::int64_t offset = static_cast<std::int64_t>(where.offset) + from;
  if (file.ReadAt(offset, out, size) != size) {
    throw DamageError("container " + file.path() + " ends before offset " +
                      std::to_string(offset + size));
  }
}

OpenContainer ContainerStore::Open(std::uint64_t dcid) const {
  FileHandle file = OpenWritten(PathOf(dcid));
  // Behind what was appended to the one that is written lies what a failed append has left, and
  // that is written over.
  const bool isWritten = writing_.has_value() && writing_->dcid == dcid;
  const std::int64_t end = isWritten ? std::int64_t{size_} : file.Size();
  return {std::move(file), end};
}

}  // namespace zefs::refhost
