#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

struct MDB_env;

namespace zefs::refhost {

/// An LMDB database in a file of its own: byte strings by keys of 1 to 511 bytes. Failures are
/// StoreErrors that name the file. Reads may run in any thread, beside each other and beside a
/// change; changes come one after another by themselves.
class LmdbFile {
 public:
  /// A key and its new value; none removes the key.
  struct Change {
    std::string key;
    std::optional<std::string> value;
  };

  /// Opens the database at `path`, making it if it is missing. It never grows beyond `mapBytes`,
  /// which cost address space only.
  LmdbFile(std::string path, std::size_t mapBytes);

  /// Opens a database of anyone's making, to look at it: without
  /// a lock, so nobody may write it meanwhile or have it open in this process.
  static LmdbFile ToLookAt(std::string path);

  ~LmdbFile();
  LmdbFile(const LmdbFile&) = delete;
  LmdbFile& operator=(const LmdbFile&) = delete;

  std::optional<std::string> Get(std::string_view key) const;

  /// All or none of the changes, on the disk when this returns.
  void Apply(const std::vector<Change>& changes);

  /// Calls `take` for all keys in order, as of one moment. `take` changes nothing here.
  void ForEach(const std::function<void(std::string_view key, std::string_view value)>& take) const;

  std::size_t size() const;  ///< keys

 private:
  class Transaction;

  LmdbFile(std::string path, std::size_t mapBytes, unsigned int flags);
  void Require(int code, const char* action) const;

  std::string path_;
  MDB_env* env_ = nullptr;
  unsigned int dbi_ = 0;
};

}  // namespace zefs::refhost
