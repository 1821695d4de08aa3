#include "refhost/store/source_file.h"

#include <fcntl.h>

#include "refhost/store/store_error.h"

namespace zefs::refhost {

FileHandle OpenSource(const std::string& path) {
  FileHandle source = FileHandle::Open(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY);
  if (!source.IsRegular()) {
    throw StoreError("not a regular file any more", 0);
  }
  return source;
}

std::string ReasonToSkip(const StoreError& error) {
  return error.code == 0 ? error.what() : ReasonOf(error.code);
}

}  // namespace zefs::refhost
