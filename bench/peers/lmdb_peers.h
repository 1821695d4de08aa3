#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include <boost/filesystem/operations.hpp>
#include <boost/filesystem/path.hpp>

#include "bench/peers/lmdb_database.h"
#include "persistent/mapping_lmdb.h"

// The least that a reader of the table's databases can do: calls of LMDB, nothing locked, nothing
// logged, no extent built. `use` gets start, end and object offset of an extent, and its record for
// the object id.

namespace zefs_bench {

template <typename Use>
void UseIfHolds(const StoredExtent& extent, std::int64_t offset, Use use) {
  const Record& record = extent.record;
  if (record.startOffset <= offset) {
    use(record.startOffset, extent.eOff, std::int64_t{record.objectOffset}, record);
  }
}

/// Look-ups in one database, each in a transaction that is begun and aborted for it.
class LmdbBegunPeer {
 public:
  explicit LmdbBegunPeer(const boost::filesystem::path& file) : database_(file.string()) {}

  template <typename Use>
  void Find(std::int64_t offset, Use use) {
    LmdbCursor cursor(database_);
    StoredExtent extent;
    if (cursor.Seek(offset, &extent)) {
      UseIfHolds(extent, offset, use);
    }
  }

 private:
  LmdbDatabase database_;
};

/// Look-ups in one database, each in the same transaction and cursor, renewed for it: a new
/// snapshot without what beginning one allocates and registers.
class LmdbRenewedPeer {
 public:
  explicit LmdbRenewedPeer(const boost::filesystem::path& file)
      : database_(file.string()), cursor_(database_) {
    cursor_.Reset();
  }

  template <typename Use>
  void Find(std::int64_t offset, Use use) {
    cursor_.Renew();
    StoredExtent extent;
    if (cursor_.Seek(offset, &extent)) {
      UseIfHolds(extent, offset, use);
    }
    cursor_.Reset();
  }

 private:
  LmdbDatabase database_;
  LmdbCursor cursor_;
};

/// A walk of one database in one transaction.
class LmdbCursorPeer {
 public:
  explicit LmdbCursorPeer(const boost::filesystem::path& file) : database_(file.string()) {}

  template <typename Use>
  void Walk(Use use) {
    LmdbCursor cursor(database_);
    StoredExtent extent;
    while (cursor.Next(&extent)) {
      UseIfHolds(extent, extent.record.startOffset, use);
    }
  }

 private:
  LmdbDatabase database_;
};

/// A walk of the databases of a table in one transaction each, newer extents hiding older ones: of
/// all cursors only those step that have fallen behind, and nothing is searched.
class LmdbMergePeer {
 public:
  /// `directory` is that of a table.
  explicit LmdbMergePeer(const boost::filesystem::path& directory) {
    using Aldenta::Qnd::Morene::Zefs::CMappingLMDB;
    for (const char* name : {CMappingLMDB::TMPDB, CMappingLMDB::LSML0DB, CMappingLMDB::FULLDB}) {
      if (boost::filesystem::exists(directory / name)) {
        databases_.push_back(std::make_unique<LmdbDatabase>((directory / name).string()));
      }
    }
  }

  template <typename Use>
  void Walk(Use use) {
    std::vector<Level> levels(databases_.size());  // newest first
    for (std::size_t i = 0; i < levels.size(); ++i) {
      levels[i].cursor = std::make_unique<LmdbCursor>(*databases_[i]);
      levels[i].Next();
    }
    std::int64_t at = 0;
    while (const Level* shown = Shown(levels, &at)) {
      std::int64_t end = shown->extent.eOff;
      for (const Level* newer = levels.data(); newer != shown; ++newer) {
        if (newer->more && newer->extent.record.startOffset < end) {
          end = newer->extent.record.startOffset;
        }
      }
      const Record& record = shown->extent.record;
      use(at, end, record.objectOffset + (at - record.startOffset), record);
      at = end;
    }
  }

 private:
  struct Level {
    std::unique_ptr<LmdbCursor> cursor;
    StoredExtent extent;  // the first one that ends behind the walk's place
    bool more = false;    // there is one

    void Next() { more = cursor->Next(&extent); }
  };

  /// The level that shows at `*at`, or at the next place where one does, which `*at` is moved to;
  /// null behind the last.
  static const Level* Shown(std::vector<Level>& levels, std::int64_t* at) {
    const Level* first = nullptr;
    for (Level& level : levels) {
      while (level.more && level.extent.eOff <= *at) {
        level.Next();
      }
      if (!level.more) {
        continue;
      }
      if (level.extent.record.startOffset <= *at) {
        return &level;
      }
      if (first == nullptr || level.extent.record.startOffset < first->extent.record.startOffset) {
        first = &level;
      }
    }
    if (first != nullptr) {
      *at = first->extent.record.startOffset;
    }
    return first;
  }

  std::vector<std::unique_ptr<LmdbDatabase>> databases_;  // newest first
};

}  // namespace zefs_bench
