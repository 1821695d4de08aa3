#pragma once

#include <cstddef>
#include <string>

#include <sys/types.h>

#include "host/visibility.h"

/// Reads up to `size` bytes at the file position, over as many reads as it takes. Returns the bytes
/// read, short only at the end of the file, 0 at the end, or -1 with `errno` set. Supplied by the
/// host, as all functions of this header.
ZEFS_HOST_API ssize_t safe_read(int fd, void* buffer, std::size_t size);

/// Writes `size` bytes at the file position, over as many writes as it takes. Returns the bytes
/// written: fewer than `size` means that an error stopped it, and `errno` tells which; -1 if the
/// very first write failed.
ZEFS_HOST_API ssize_t safe_write(int fd, const void* buffer, std::size_t size);

/// fsync, repeated when a signal interrupts it. Returns 0, or -1 with `errno` set.
ZEFS_HOST_API int safe_fsync(int fd);

/// Asks that the open file be kept out of memory mappings. The library ignores the result.
ZEFS_HOST_API int EnableNommap(const std::string& path, int fd);

/// Whether `path` lies on the file-system family for which EnableNommap has a meaning.
ZEFS_HOST_API bool IsZxfs(const std::string& path);

/// A time in milliseconds from a clock that never runs backwards; only differences have a meaning.
ZEFS_HOST_API unsigned long get_millis();
