#include "refhost/check/work_dir.h"

#include <cerrno>
#include <cstdlib>
#include <system_error>

#include "refhost/store/store_error.h"

namespace zefs::refhost {

namespace fs = std::filesystem;

WorkDir::WorkDir(const std::string& directory, bool keep, const std::string& dataName)
    : keep_(keep), data_(dataName) {
  try {
    if (directory.empty()) {
      MakeFresh();
    } else {
      Adopt(directory);
    }
    MakeDirectory(data());
    made_.emplace_back(copies());
  } catch (...) {
    RemoveMade();
    throw;
  }
}

WorkDir::~WorkDir() {
  if (!keep_) {
    RemoveMade();
  }
}

void WorkDir::MakeFresh() {
  const char* const given = std::getenv("TMPDIR");
  const fs::path place = given != nullptr && *given != '\0' ? given : "/tmp";
  std::string name = (place / "zefs-check-XXXXXX").string();
  if (::mkdtemp(name.data()) == nullptr) {
    const int code = errno;
    throw StoreError("cannot make a directory in " + place.string() + ": " + ReasonOf(code) +
                         "; --store or TMPDIR choose another place",
                     code);
  }
  path_ = name;
  made_.push_back(path_);
}

void WorkDir::Adopt(const std::string& directory) {
  path_ = fs::path(directory);
  std::error_code error;
  if (!fs::exists(path_, error) && !error) {
    MakeDirectory(path_);
    return;
  }
  const bool empty = !error && fs::is_empty(path_, error);
  if (error) {
    throw SystemError("use the store", directory, error.value());
  }
  if (!fs::is_directory(path_, error)) {
    throw SystemError("use the store", directory, ENOTDIR);
  }
  if (!empty) {
    throw SystemError("use the store", directory, ENOTEMPTY);
  }
}

void WorkDir::MakeDirectory(const fs::path& directory) {
  std::error_code error;
  if (!fs::create_directory(directory, error)) {
    throw SystemError("create", directory.string(), error ? error.value() : EEXIST);
  }
  made_.push_back(directory);
}

void WorkDir::RemoveMade() noexcept {
  for (const fs::path& directory : made_) {
    std::error_code ignored;
    fs::remove_all(directory, ignored);
  }
}

}  // namespace zefs::refhost
