#pragma once

#include <cstdlib>
#include <stdexcept>
#include <string>

#include <boost/filesystem/operations.hpp>
#include <boost/filesystem/path.hpp>

namespace zefs::test {

/// A directory that lives as long as this object.
class TempDir {
 public:
  TempDir() {
    std::string name = (boost::filesystem::temp_directory_path() / "zefs-test-XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr) {
      throw std::runtime_error("cannot make " + name);
    }
    path_ = name;
  }
  ~TempDir() {
    boost::system::error_code ignored;
    boost::filesystem::remove_all(path_, ignored);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const boost::filesystem::path& path() const { return path_; }
  boost::filesystem::path operator/(const std::string& name) const { return path_ / name; }

 private:
  boost::filesystem::path path_;
};

}  // namespace zefs::test
