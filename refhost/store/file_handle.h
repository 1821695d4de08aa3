#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include <sys/stat.h>

namespace zefs::refhost {

/// An open file of the store, read and written by position. Every failure is a StoreError that
/// names the path. Closed on destruction; movable. Not synchronised, but reads may run beside each
/// other.
class FileHandle {
 public:
  /// Opens `path` with the open(2) flags given; O_CLOEXEC is added, and files made get mode 0600.
  static FileHandle Open(const std::string& path, int flags);

  FileHandle(FileHandle&& other) noexcept;
  FileHandle& operator=(FileHandle&& other) noexcept;
  FileHandle(const FileHandle&) = delete;
  FileHandle& operator=(const FileHandle&) = delete;
  ~FileHandle();

  /// Reads up to `size` bytes at `offset`; returns the bytes read, short only at the end of the
  /// file.
  std::size_t ReadAt(std::int64_t offset, char* out, std::size_t size) const;

  /// Writes all of `bytes` at `offset`. After a failure an unknown part of them is written.
  void WriteAt(std::int64_t offset, std::string_view bytes);

  /// All that was written is on the disk when this returns.
  void Sync() const;

  /// Takes the lock of the whole file, which ends with this object. False if another handle has it.
  bool TryLock();

  /// Cuts the file, or extends it by zeros.
  void Resize(std::int64_t size);

  std::int64_t Size() const;
  bool IsRegular() const;
  const std::string& path() const { return path_; }

 private:
  struct stat Status() const;

  FileHandle(int fd, std::string path);

  int fd_;
  std::string path_;
};

/// The names in the directory are on the disk when this returns. Throws StoreError.
void SyncDirectory(const std::string& path);

}  // namespace zefs::refhost
