#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace zefs::refhost {

/// A path that was to be read and was not, and why.
struct Skipped {
  std::string path;
  std::string reason;
};

struct CollectedFiles {
  std::vector<std::string> files;  ///< absolute paths of regular files, sorted, each once
  std::vector<Skipped> skipped;    ///< what could not be examined or listed
  std::uint64_t notRegular = 0;  ///< symbolic links, pipes, devices and so on that were passed over
  std::uint64_t bytes = 0;       ///< sum of the sizes of `files`
};

/// The regular files at and under `paths`. Of symbolic links only those given themselves are
/// followed.
CollectedFiles CollectFiles(const std::vector<std::string>& paths);

}  // namespace zefs::refhost
