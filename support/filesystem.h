#pragma once

#include <boost/filesystem/file_status.hpp>
#include <boost/filesystem/path.hpp>
#include <boost/system/error_code.hpp>
#include <sys/types.h>

#include "support/visibility.h"

namespace storage::utils {

/// A virtual layer over the file system, so that a test can replace it. Each operation is one call
/// of Boost.Filesystem or of the system and adds nothing, but for the directory creation below.
/// Without an error_code argument the Boost operations throw boost::filesystem::filesystem_error;
/// the system calls return -1 and set `errno`. No state, no locks.
class ZEFS_EXTMAP_API filesystem {
 public:
  virtual ~filesystem() = default;

  virtual bool create_directories(const boost::filesystem::path& p) const;

  /// Creates every missing component of `p`, from the first on, and gives `perms` to each one made;
  /// a component that was there keeps its rights. False as soon as a component is not made by this
  /// call, be it that somebody else made it at the same moment.
  virtual bool create_directories(const boost::filesystem::path& p,
                                  boost::filesystem::perms perms) const;

  /// As above, but losing a race counts as success: true if `p` exists in the end. Rights are set
  /// only on directories that this call itself made.
  virtual bool check_and_create_directories(const boost::filesystem::path& p,
                                            boost::filesystem::perms perms) const;

  /// The same; failures that concern `p` itself go to `ec`, which holds that of the last step,
  /// those of its parents are thrown.
  virtual bool check_and_create_directories(const boost::filesystem::path& p,
                                            boost::filesystem::perms perms,
                                            boost::system::error_code& ec) const;

  virtual bool is_directory(boost::filesystem::file_status s) const;
  virtual bool is_directory(const boost::filesystem::path& p) const;
  virtual bool is_regular_file(boost::filesystem::file_status s) const;
  virtual bool is_regular_file(const boost::filesystem::path& p) const;
  virtual bool exists(const boost::filesystem::path& p) const;
  virtual int mkdir(const char* path, unsigned int mode) const;
  virtual void permissions(const boost::filesystem::path& p, boost::filesystem::perms perms) const;
  virtual void copy(const boost::filesystem::path& from, const boost::filesystem::path& to) const;
  virtual int open(const char* path, int flags) const;
  virtual ssize_t read(int fd, void* buffer, unsigned long size) const;
  virtual int close(int fd) const;
  virtual unsigned long remove_all(const boost::filesystem::path& p,
                                   boost::system::error_code& ec) const;
};

}  // namespace storage::utils
