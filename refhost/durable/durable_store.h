#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <shared_mutex>
#include <string>
#include <string_view>
#include <vector>

#include "refhost/durable/catalogue.h"
#include "refhost/durable/sequential_digest.h"
#include "refhost/durable/store_directory.h"
#include "refhost/durable/stored_file.h"
#include "refhost/prefetch/read_record.h"

namespace zefs::refhost {

struct TableReferences;

struct DurableStoreOptions {
  StoreDirectory::Missing missing = StoreDirectory::Missing::kIsMade;
  WantedFormat format;
  std::uint32_t containerBytes = kDefaultContainerBytes;
  std::size_t workers = 0;  ///< threads that store data; 0: one for each processor, 4 at most
  ReadAheadOptions readAhead;
  std::size_t mostOpen = 64;  ///< tables kept open, as long as their files are synced
  /// A compaction that was cut off is finished when the store is opened. Where that is not wanted,
  /// or fails, everything can be read all the same, object by object through the index.
  bool finishCompaction = true;
};

/// Files by name that outlive the process. What Sync has seen is there after any crash, byte for
/// byte; of what came later, a file that was begun anew is as it was at the last sync, and in one
/// that was written over each byte is as of the last sync or as a later write made it. A file is
/// cut, renamed or copied at once and whole.
///
/// Names are any text but the empty one. Ranges outside of the offsets 0 to INT64_MAX are
/// std::invalid_argument, a name that names no file std::out_of_range; all else is StoreError and
/// DamageError. After a failed change the file concerned can only be read, and after a failed Sync
/// the store should be opened again.
///
/// Any threads may read and write at once; other operations wait for these and keep them out.
class DurableStore {
 public:
  /// Opens the store, or makes it. With reading ahead the tables of the process keep the extents
  /// that they were asked about from then on. Removes what a crash has left of files that were
  /// never synced.
  explicit DurableStore(const std::string& path, const DurableStoreOptions& options = {});

  /// Ends without a sync. No other call may be running.
  ~DurableStore();
  DurableStore(const DurableStore&) = delete;
  DurableStore& operator=(const DurableStore&) = delete;

  /// Begins the file anew and empty. The version of the last sync, if there is one, is replaced by
  /// the next sync.
  void Create(const std::string& name);

  /// Forgets the file, for good with the next sync, which deletes its table. What it stored stays
  /// in the containers until a collection (refhost/gc).
  void Remove(const std::string& name);

  /// Takes back all that happened to the file since the last sync but changes of that version.
  void Discard(const std::string& name);

  void Write(const std::string& name, std::int64_t offset, std::string_view bytes);

  /// Sets the size. A cut is on the disk when this returns, whole: after a crash before that the
  /// file is cut or is not, and what was written to it up to then is in its table.
  void Truncate(const std::string& name, std::int64_t size);

  /// What became of a table whose file was renamed.
  enum class TableMove { kStays, kRenamed, kCopied };

  /// Syncs, and renames a file. Its table goes to the volume of the new name, if that is another
  /// one. At each moment, and after a crash, the file is there under one of its names, whole. A
  /// file `newName` is a StoreError, EEXIST, or, with `replace`, removed in the same moment. After
  /// a failure the store should be opened again.
  TableMove Rename(const std::string& name, const std::string& newName, bool replace);

  /// Syncs, and makes the file `copy`, which is not there yet, of the file as it is now: a table of
  /// its own over the same data. On the disk when this returns; after a crash it is there whole or
  /// not at all.
  void Snapshot(const std::string& name, const std::string& copy);

  /// Reads up to `size` bytes at `offset`; returns the bytes read, short only at the end of the
  /// file. Holes are zeros.
  std::size_t Read(const std::string& name, std::int64_t offset, char* out, std::size_t size);

  std::int64_t SizeOf(const std::string& name);

  /// Makes everything durable: data first, then the index of it, then the tables, and last the
  /// catalogue, in which all files change at once.
  void Sync();

  /// Closes all files, which are synced: their tables can be loaded again, in this process too.
  /// Throws StoreError if one has a merge that does not come to an end.
  void CloseFiles();

  /// Runs `look` on the extent map of a file, all of which is in its databases, while nothing
  /// changes.
  void WithTable(const std::string& name, const std::function<void(MappingTable&)>& look);

  /// Syncs, and runs `work` on the store while nobody else reads or writes.
  class Still;
  void Exclusively(const std::function<void(Still&)>& work);

  /// The files as of the last sync.
  Catalogue::Entries Catalogued() const;

  const StoreDirectory& directory() const { return directory_; }
  /// Of reading ahead: by this object, and by all that came before it.
  ReadAheadFigures readAheadFigures() const { return ahead_.figures(); }
  ReadAheadFigures formerReadAheadFigures() const { return readRecord_.Load(); }
  LastingObjects& objects() { return objects_; }
  const NodeCounts& nodes() { return cache_.counts(); }
  std::uint64_t flushes() const { return cache_.flushes(); }  ///< that wrote something
  std::uint64_t syncs() const { return syncs_; }              ///< that had something to do
  /// Of tables, seen to be finished: all that there were, once the files are closed.
  std::uint64_t merges() const { return merges_; }

 private:
  struct Open {
    Open(std::uint64_t number, bool fresh) : table(number), digest(fresh) {}

    std::uint64_t table;  // volume and number of its directory
    std::unique_ptr<StoredFile> file;
    SequentialDigest digest;
    bool changed = false;                               // since the last sync
    std::uint64_t lastUse = 0;                          // by the count of uses
    std::shared_ptr<const TableReferences> references;  // as last asked for
  };
  using OpenPtr = std::shared_ptr<Open>;

  void SettleMoves();
  void RemoveOrphans();
  void RemoveOrphansOf(std::size_t volume, const std::set<std::uint64_t>& known) const;
  OpenPtr NewVersion(const std::string& name);
  void MakeSpares(std::size_t volume);
  bool Exists(const std::string& name) const;
  void RequireFile(const std::string& name) const;
  void RequireFree(const std::string& name) const;
  void FinishCompactionIfAny();
  OpenPtr Acquire(const std::string& name, bool toChange);
  OpenPtr OpenCatalogued(const std::string& name);
  int Protect(const std::string& share);
  void MarkChanging(const std::vector<std::string>& names);
  void MarkCut(const std::string& name, std::int64_t size);
  void CloseSome();
  bool Close(std::map<std::string, OpenPtr>::iterator at);
  void MakeRoomFor(const std::string& name);
  void FlushAll(StoredFile& file);
  static void FinishMergesOf(StoredFile* file);
  void SyncAll();
  CatalogueEntry SyncOne(Open* open);
  crfp_digest_t DigestByReading(const StoredFile& file) const;
  TableMove MoveTable(const std::string& name, std::size_t volume);
  void DropVersion(const std::string& name);
  void TakeOut(const std::string& name);
  void RemoveTable(std::uint64_t table) const;
  void RemoveTable(Open* open) const;
  void RemoveTables(const std::vector<std::uint64_t>& tables);
  bool IsCatalogued(const std::string& name, const Open& open) const;

  const DurableStoreOptions options_;
  StoreDirectory directory_;
  Segmenter segmenter_;
  LastingObjects objects_;
  ReadAhead ahead_;
  ReadRecord readRecord_;
  DataCache cache_;
  std::atomic<std::uint64_t> merges_{0};
  std::atomic<std::uint64_t> syncs_{0};
  WorkerPool workers_;
  FileServices services_;

  mutable std::shared_mutex gate_;  // shared: reads and writes; exclusive: all else
  mutable std::mutex mutex_;        // guards what follows where gate_ is shared
  Catalogue catalogue_;
  std::uint64_t nextTable_ = 1;  // its number
  std::uint64_t uses_ = 0;
  std::map<std::string, OpenPtr> open_;
  std::map<std::size_t, std::vector<OpenPtr>> spares_;  // by volume: empty files without a name
  std::size_t sparesAtOnce_ = 1;
  std::set<std::string> removed_;             // since the last sync, of those in the catalogue
  std::map<std::uint64_t, OpenPtr> retired_;  // open tables that the next sync deletes
};

/// A store in which all that was written is synced, and nothing happens but what this object does.
class DurableStore::Still {
 public:
  using KeptReferences = std::shared_ptr<const TableReferences>;

  explicit Still(DurableStore* store) : store_(*store) {}

  const Catalogue::Entries& files() const { return store_.catalogue_.entries(); }
  std::vector<std::string> Names() const;  ///< of these
  const StoreDirectory& directory() const { return store_.directory_; }
  LastingObjects& objects() { return store_.objects_; }

  /// Calls `look` with each of these files, as Visit, for several of them at once.
  void VisitAll(const std::vector<std::string>& names,
                const std::function<void(const std::string& name, StoredFile& file,
                                         KeptReferences* kept)>& look);

  /// Calls `look` with a file, which is opened if need be, and with what it keeps as long as it is
  /// open: what its table referenced when it was last asked. Empty if it was not asked since
  /// WithTable.
  void Visit(const std::string& name,
             const std::function<void(StoredFile& file, KeptReferences* kept)>& look);

 private:
  DurableStore& store_;
};

}  // namespace zefs::refhost
