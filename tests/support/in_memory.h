#pragma once

#include <cstdlib>

#include <sys/stat.h>
#include <sys/statvfs.h>

namespace zefs::test {

/// Whether there is a file system in memory that any user may write to, with room to spare.
inline bool HasSharedMemory() {
  constexpr unsigned long kRoom = 1UL << 30;
  struct stat directory {};
  struct statvfs filesystem {};
  return ::stat("/dev/shm", &directory) == 0 && (directory.st_mode & S_IWOTH) != 0 &&
         ::statvfs("/dev/shm", &filesystem) == 0 &&
         filesystem.f_bavail * filesystem.f_frsize >= kRoom;
}

/// Temporary directories of a program that includes this are in memory where that can be: it syncs
/// thousands of times, and what it shows does not depend on the disk. TMPDIR chooses another place.
inline const bool kInMemory =
    HasSharedMemory() && ::setenv("TMPDIR", "/dev/shm", /*overwrite=*/0) == 0;

}  // namespace zefs::test
