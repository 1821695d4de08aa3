#pragma once

#include <algorithm>
#include <cstdint>
#include <optional>

#include <boost/filesystem/path.hpp>

#include "bench/peers/std_map_cache.h"
#include "bench/stored_extents.h"

namespace zefs_bench {

/// An extent map in one ordered store on disk, as one would write it by hand: key is the end
/// offset, value the record of 72 bytes. The overlaps inside a batch are resolved in memory, so
/// that the store sees disjoint extents in the order of their keys: it is searched forward only,
/// each stored extent is read once, and nothing is stored twice in a batch.
///
/// A `Store` opens in a directory and has
/// - Begin() and Commit() around each batch; once Commit returns, the batch outlives a crash;
/// - Seek(offset, out), the first extent that ends behind `offset`, and Next(out), the one behind
///   that; both tell whether there is one. Within a batch they need not show what it has put, and
///   are not asked for it;
/// - Put(extent), also in place of the one with that end, Append(extent) behind all others, and
///   Delete(end);
/// - Settle(), which waits for what it does in the background;
/// - a class Reader, made of the store while no batch is open, with a Seek and a Next of its own.
///   It shows the store as it was when it was made.
template <typename Store>
class StorePeer {
 public:
  explicit StorePeer(const boost::filesystem::path& directory) : store_(directory) {}

  /// Any write, over all earlier ones. It waits in memory for the next flush.
  void Insert(const Write& write) { batch_.Insert(write, nullptr); }

  /// Stores what waits as one durable batch.
  void Flush() {
    reader_.reset();
    store_.Begin();
    Old old;
    batch_.Walk([&](std::int64_t sOff, std::int64_t eOff, std::int64_t, const Record& record) {
      if (!old.searched || (old.there && old.extent.eOff <= sOff)) {
        PutBack(old);
        old.searched = true;
        old.there = store_.Seek(sOff, &old.extent);
        old.cut = false;
      }
      CutOld(&old, sOff, eOff);
      store_.Put({eOff, record});
    });
    PutBack(old);
    store_.Commit();
    batch_.clear();
  }

  void WriteBatch(const Write* first, const Write* last) {
    std::for_each(first, last, [this](const Write& write) { Insert(write); });
    Flush();
  }

  /// Calls `use` with start, end and object offset and the record of what is visible of every
  /// extent that reaches into [start, end), whether it is stored or waits.
  template <typename Use>
  void Read(std::int64_t start, std::int64_t end, Use use) {
    Place place;
    std::int64_t at = start;
    batch_.Read(
        start, end,
        [&](std::int64_t sOff, std::int64_t eOff, std::int64_t objOff, const Record& record) {
          ReadStored(at, sOff, &place, use);
          use(sOff, eOff, objOff, record);
          at = eOff;
        });
    ReadStored(at, end, &place, use);
  }

  /// Writes that lie in order behind all before them, as one durable batch. The peer is told, and
  /// searches nothing.
  void AppendBatch(const Write* first, const Write* last) {
    store_.Begin();
    for (const Write* write = first; write != last; ++write) {
      store_.Append({write->eOff, RecordOf(*write)});
    }
    store_.Commit();
  }

  void Settle() {
    reader_.reset();
    store_.Settle();
  }

  /// A reader that stays open for many look-ups, or for a walk.
  class View {
   public:
    explicit View(StorePeer& peer) : reader_(peer.store_) {}

    /// Calls `use` with start, end and object offset and the record of the extent that holds
    /// `offset`, if there is one.
    template <typename Use>
    void Find(std::int64_t offset, Use use) {
      StoredExtent extent;
      if (reader_.Seek(offset, &extent) && extent.record.startOffset <= offset) {
        UseExtent(extent, use);
      }
    }

    /// The same for every extent in order.
    template <typename Use>
    void Walk(Use use) {
      StoredExtent extent;
      for (bool more = reader_.Seek(0, &extent); more; more = reader_.Next(&extent)) {
        UseExtent(extent, use);
      }
    }

   private:
    template <typename Use>
    static void UseExtent(const StoredExtent& extent, Use use) {
      const Record& record = extent.record;
      use(record.startOffset, extent.eOff, std::int64_t{record.objectOffset}, record);
    }

    typename Store::Reader reader_;
  };

 private:
  /// The stored extent that the batch has come to.
  struct Old {
    bool searched = false;  ///< the store was asked for it
    bool there = false;
    bool cut = false;  ///< `extent` is what is left of it, not stored yet
    StoredExtent extent;
  };

  /// Where a read has come to in the store.
  struct Place {
    bool searched = false;
    bool there = false;
    StoredExtent extent;
  };

  /// What is stored in [from, to), where nothing waits. Searches once a read and steps from there.
  template <typename Use>
  void ReadStored(std::int64_t from, std::int64_t to, Place* place, Use& use) {
    if (from >= to) {
      return;
    }
    if (!place->searched) {
      if (!reader_.has_value()) {
        reader_.emplace(store_);
      }
      place->searched = true;
      place->there = reader_->Seek(from, &place->extent);
    }
    const StoredExtent& extent = place->extent;
    while (place->there && extent.record.startOffset < to) {
      if (extent.eOff > from) {
        const std::int64_t sOff = std::max(std::int64_t{extent.record.startOffset}, from);
        use(sOff, std::min(extent.eOff, to),
            extent.record.objectOffset + (sOff - extent.record.startOffset), extent.record);
      }
      if (extent.eOff > to) {
        return;  // it may show again behind what hides it
      }
      place->there = reader_->Next(&place->extent);
    }
  }

  void PutBack(const Old& old) {
    if (old.there && old.cut) {
      store_.Put(old.extent);
    }
  }

  /// Makes room for [sOff, eOff), of which `*old` is the first extent that ends behind `sOff`.
  void CutOld(Old* old, std::int64_t sOff, std::int64_t eOff) {
    while (old->there && old->extent.record.startOffset < eOff) {
      if (old->extent.record.startOffset < sOff) {
        store_.Put({sOff, old->extent.record});
      }
      if (eOff < old->extent.eOff) {
        old->extent.record = TailOf(old->extent.record, eOff);
        old->cut = true;
        return;
      }
      if (eOff != old->extent.eOff) {
        store_.Delete(old->extent.eOff);
      }
      old->there = store_.Next(&old->extent);
      old->cut = false;
    }
  }

  Store store_;
  StdMapCache<Record> batch_;
  std::optional<typename Store::Reader> reader_;  // of reads since the last flush
};

}  // namespace zefs_bench
