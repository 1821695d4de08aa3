#pragma once

#include <string>
#include <vector>

#include <sys/types.h>

namespace zefs::test {

/// A file or directory that has come to be, with the rights that it had in its first moment; or
/// rights that were asked for later.
struct Creation {
  enum Kind { kFile, kDirectory, kChange };
  Kind kind;
  std::string path;
  mode_t mode;
};

/// Sees every file and directory that this process makes below `directory`, and every change of
/// their rights, whoever makes it: the library, LMDB, Boost.Filesystem. For programs that compile
/// creations.cc, which do not wait for the disk either; one at a time.
class Creations {
 public:
  explicit Creations(const std::string& directory);
  ~Creations();
  Creations(const Creations&) = delete;
  Creations& operator=(const Creations&) = delete;

  /// In their order. Forgets them.
  static std::vector<Creation> Take();
};

}  // namespace zefs::test
