#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace zefs::refhost {

/// The directory of work that is done once: data, and the plain copies of files beside it. What
/// it made is removed again at the end unless it is to be kept, and nothing else.
class WorkDir {
 public:
  /// Uses `directory`, made if it is missing, or a fresh one in the place for temporary files (the
  /// environment's TMPDIR, else /tmp) if the text is empty. Throws StoreError if it cannot be made
  /// or written, or is not empty.
  /// The data gets a directory of that name.
  WorkDir(const std::string& directory, bool keep, const std::string& dataName);
  ~WorkDir();
  WorkDir(const WorkDir&) = delete;
  WorkDir& operator=(const WorkDir&) = delete;

  std::string path() const { return path_.string(); }
  std::string data() const { return (path_ / data_).string(); }
  std::string copies() const { return (path_ / "copies").string(); }

 private:
  void MakeFresh();
  void Adopt(const std::string& directory);
  void MakeDirectory(const std::filesystem::path& directory);
  void RemoveMade() noexcept;

  std::filesystem::path path_;
  bool keep_;
  std::string data_;
  std::vector<std::filesystem::path> made_;
};

}  // namespace zefs::refhost
