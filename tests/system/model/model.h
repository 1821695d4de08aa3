#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "tests/system/model/cache_model.h"
#include "tests/system/model/disk.h"
#include "tests/system/model/operation.h"
#include "tests/system/model/pieces.h"

namespace zefs::test {

/// What an operation gives of the table in memory and of the stored one. Where the two differ, this
/// is the one place that says so.
template <typename T>
struct Both {
  T memory;
  T stored;
};

/// One write of the host.
struct WriteOf {
  long start = 0;
  long end = 0;
  Piece piece;          ///< `id` counts if `isKnown`
  bool isKnown = true;  ///< else the table gets no id
};

/// Where a merge is made to fail.
enum class MergeFault {
  kNone,
  kSetup,  ///< as its database is opened
  kWalk,   ///< at its first extent, if there is one
  kSize,   ///< as one of its special items is stored
  kCounter,
  kDoid,
  kVersion
};

using BytesByDcid = std::map<std::uint64_t, std::uint64_t>;

/// References of a table.
struct References {
  BytesByDcid bytes;
  std::map<crfp_digest_t, std::uint64_t> extentsByFp;
};

/// An extent of a plan, without its time.
struct Planned {
  Piece piece;
  long end = 0;
  bool inRange = false;
};

struct Plan {
  /// In the order in which the containers are met.
  std::vector<std::pair<std::uint64_t, std::vector<Planned>>> containers;
};

/// What a file is, and what two tables that were told the same make of it. The table in memory is
/// one layer of pieces. The stored one is the same layer spread over cache and databases, of which
/// the newest hides the others; byte by byte both show the same, except where Agree() says so.
///
/// Every operation that changes something is one function here. It says nothing of how a table does
/// it, but of everything that a table must give back.
class Model {
 public:
  explicit Model(Settings settings) : settings_(std::move(settings)) {}

  const Settings& settings() const { return settings_; }
  bool HasJournal() const { return settings_.type == "GENERIC"; }

  // --- nodes

  int NewNode(const ObjectID& id, std::int32_t dcOffset);
  const Nodes& nodes() const { return nodes_; }
  std::vector<int> NotReady() const;
  /// The offsets at which the table in memory has to be told of it.
  std::vector<long> MakeReady(int node);

  // --- writes

  void Insert(const WriteOf& write);
  void Append(const WriteOf& write);
  long LastEnd() const { return tree_.empty() ? 0 : tree_.rbegin()->first; }
  /// What was found in the stored table is written back there; in memory that does nothing.
  void Update(const Seen& found);
  void Truncate(long size);
  void SetFileSize(long size);
  Both<long> FileSize() const;

  // --- look-ups

  Both<std::optional<Seen>> Find(long offset) const;
  Both<std::optional<Seen>> FindCached(long offset) const;
  Both<long> Size() const;
  /// `*out` unless the range is empty; what was found is prefetched.
  Plan MakePlan(long start, long end);
  std::size_t prefetched() const { return run_.size(); }

  // --- object ids and references

  Both<std::vector<Seen>> ListIds(unsigned long start, unsigned long end);
  /// Elements: fingerprint and new container; from 0 to the largest offset.
  void RewriteIds(const std::vector<Seen>& list);
  References MemoryReferences() const;
  /// Bytes by container, and a fingerprint for each record.
  std::pair<BytesByDcid, std::multiset<crfp_digest_t>> StoredReferences() const;
  /// Containers with bytes, and what the filter has counted; what was changed is known from now on.
  std::pair<BytesByDcid, std::uint64_t> Filter();
  /// Whether the filter may be of an older merge, after a kill.
  bool FilterMayDeny() const { return filterMayDeny_; }
  void SetDoid(const Doid& doid);
  std::optional<Doid> GetDoid() const;
  bool IsChanged() const;
  std::vector<int> WritingNodes() const { return cache_.Waiting(); }
  void ChangeAttributes(long offset, const ObjectID& id);

  // --- container offsets

  std::vector<OffsetRecord> TakeOffsets();
  void Backfill(const std::vector<OffsetRecord>& answers);
  void RefreshOffset(const OffsetRecord& record);

  // --- flushes and merges

  struct Flushed {
    std::set<int> released;
    bool refused = false;  ///< the flush has failed as it had to
  };
  Flushed Flush(bool force, bool refuse, MergeFault fault);
  void FlushUnlocked(MergeFault fault);
  std::set<int> ForgetNodes();
  void Merge(MergeFault fault);
  bool TmpIsOpen() const { return disk_.tmp.has_value(); }

  // --- files and lives

  Version GetVersion() const { return version_; }
  void SetVersion(Version version);
  void Move() { FlushOffsets(); }
  void Remove();
  void Load();
  void Unload() { FlushOffsets(); }
  /// A process has died: the files are as they were found.
  void Adopt(Disk found);
  const Disk& disk() const { return disk_; }
  long SizeOnDisk() const;

  /// States of the files that an operation passes through, the last not included; kept on demand.
  void KeepWaypoints() { keepWaypoints_ = true; }
  const std::vector<Disk>& waypoints() const { return waypoints_; }

  // --- the two tables

  const Layer& tree() const { return tree_; }
  /// All layers of the stored table, newest first.
  Layers StoredLayers() const;
  /// Whether both show the same bytes; else, in words, where they do not.
  std::string Agree() const;
  /// The table in memory is made anew from the stored one. Told once.
  bool TakeRebuilt() { return std::exchange(rebuilt_, false); }

 private:
  void Waypoint();
  void WriteCache(long start, long end, const Piece& piece);
  void DropPrefetched();
  void DropPrefetchedUnder(long start, long end);
  void KeepPrefetched(std::vector<Seen> fetched);
  void FirstChange();
  void Store(const std::map<long, ToStore>& ids);
  void StoreOne(Database* target, long end, const Piece& piece);
  void Track(long key, const Piece& piece);
  void FlushOffsets();
  void Journal(const Piece& piece, long end, bool added);
  void Replay();
  void MergeIfDue(std::size_t entries, MergeFault fault);
  void TruncateDatabase(Database* database, long size);
  /// The object that an extent of the stored table will have been stored under. None while nobody
  /// knows, and for a cached extent that has lost its node and will never be stored.
  std::optional<ObjectID> IdToBe(const Seen& seen) const;
  /// What only the stored table has lost or kept: the host takes the table in memory from there.
  void RebuildIfStrayed();

  Settings settings_;
  Nodes nodes_{Node{}};
  Layer tree_;
  CacheModel cache_;
  Disk disk_;
  std::vector<Seen> run_;  // prefetched
  std::set<OffsetRecord> offsets_;
  long fileSize_ = -1;
  long committedSize_ = -1;
  long commits_ = 0;
  Version version_{2, 0};
  bool changed_ = true;
  Doid doid_;
  bool filterMayDeny_ = false;
  bool rebuilt_ = false;
  bool keepWaypoints_ = false;
  std::vector<Disk> waypoints_;
};

}  // namespace zefs::test
