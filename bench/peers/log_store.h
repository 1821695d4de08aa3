#pragma once

#include <cstdint>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>

#include <boost/filesystem/path.hpp>

#include "bench/peers/end_key.h"
#include "bench/stored_extents.h"

namespace zefs_bench {

/// A store for StorePeer over a log-structured one: a batch is one synced write. `Library` is one
/// of leveldb_library.h and rocksdb_library.h, whose interfaces are alike but for names and
/// options.
template <typename Library>
class LogStore {
 public:
  explicit LogStore(const boost::filesystem::path& directory)
      : library_((directory / "extents").string()) {}
  ~LogStore() { cursor_.reset(); }  // ahead of its store
  LogStore(const LogStore&) = delete;
  LogStore& operator=(const LogStore&) = delete;

  void Begin() { cursor_.reset(library_.NewIterator()); }
  void Commit() {
    cursor_.reset();
    Check(library_.db().Write(library_.Synced(), &batch_), "Write");
    batch_.Clear();
  }

  bool Seek(std::int64_t offset, StoredExtent* out) { return SeekBy(*cursor_, offset, out); }
  bool Next(StoredExtent* out) { return NextBy(*cursor_, out); }

  void Put(const StoredExtent& extent) {
    const EndKey key(extent.eOff);
    batch_.Put({key.data(), EndKey::kBytes},
               {reinterpret_cast<const char*>(&extent.record), sizeof(extent.record)});
  }
  void Append(const StoredExtent& extent) { Put(extent); }
  void Delete(std::int64_t end) {
    const EndKey key(end);
    batch_.Delete({key.data(), EndKey::kBytes});
  }

  void Settle() { library_.Settle(); }

  class Reader {
   public:
    explicit Reader(const LogStore& store) : cursor_(store.library_.NewIterator()) {}
    bool Seek(std::int64_t offset, StoredExtent* out) { return SeekBy(*cursor_, offset, out); }
    bool Next(StoredExtent* out) { return NextBy(*cursor_, out); }

   private:
    std::unique_ptr<typename Library::Iterator> cursor_;
  };

 private:
  using Iterator = typename Library::Iterator;

  template <typename Status>
  static void Check(const Status& status, const char* call) {
    if (!status.ok()) {
      throw std::runtime_error(std::string(call) + ": " + status.ToString());
    }
  }

  static bool Take(const Iterator& at, StoredExtent* out) {
    if (!at.Valid()) {
      Check(at.status(), "Iterator");
      return false;
    }
    out->eOff = EndKey::Decode(at.key().data());
    std::memcpy(&out->record, at.value().data(), sizeof(out->record));
    return true;
  }
  static bool SeekBy(Iterator& cursor, std::int64_t offset, StoredExtent* out) {
    const EndKey key(offset + 1);
    cursor.Seek({key.data(), EndKey::kBytes});
    return Take(cursor, out);
  }
  static bool NextBy(Iterator& cursor, StoredExtent* out) {
    cursor.Next();
    return Take(cursor, out);
  }

  Library library_;
  typename Library::Batch batch_;
  std::unique_ptr<Iterator> cursor_;  // while a batch is open: the store before it
};

}  // namespace zefs_bench
