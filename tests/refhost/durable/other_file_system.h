#pragma once

#include <boost/filesystem/path.hpp>

namespace zefs::test {

/// A directory on another file system than `path`: one of its own where this process may write to
/// two, and else, or if ZEFS_TEST_ONE_FILE_SYSTEM is set, one that only behaves so: what lies below
/// it cannot be renamed to what does not, nor the other way. For programs that compile
/// other_file_system.cc and send their calls of `rename` there; one object at a time.
class OtherFileSystem {
 public:
  explicit OtherFileSystem(const boost::filesystem::path& path);
  ~OtherFileSystem();
  OtherFileSystem(const OtherFileSystem&) = delete;
  OtherFileSystem& operator=(const OtherFileSystem&) = delete;

  const boost::filesystem::path& path() const { return path_; }

 private:
  boost::filesystem::path path_;
};

}  // namespace zefs::test
