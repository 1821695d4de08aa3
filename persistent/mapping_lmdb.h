#pragma once

#include <cstdint>
#include <list>
#include <lmdb.h>
#include <map>
#include <memory>
#include <pthread.h>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include <boost/thread/mutex.hpp>
#include <boost/thread/shared_mutex.hpp>

#include "persistent/ext_lmdb.h"
#include "persistent/lmdb_context.h"
#include "persistent/records.h"
#include "sidefiles/dc_offset_store.h"
#include "sidefiles/extent_journal.h"
#include "support/lmdb_c_api_wrapper.h"
#include "support/visibility.h"
#include "table/mapping_table.h"

namespace Aldenta::Qnd::Morene::Zefs {

struct MappingLMDBTestPeer;

// Types of a table, compared exactly; an unknown one counts as ZEFS_INGEST_STR. Only the first has
// a journal.
inline constexpr char ZEFS_GENERIC_STR[] = "GENERIC";
inline constexpr char ZEFS_INGEST_STR[] = "INGEST";
inline constexpr char ZEFS_PROVISION_STR[] = "PROVISION";

/// A cursor and its transaction on one database of a chain.
struct MDBTXNCONTEXT {
  MDB_cursor* cursor = nullptr;
  MDB_txn* txn = nullptr;
};

/// The extent map of one file on disk. Writes stop in an extent cache in memory; a flush moves
/// extents whose object ids are known into a small database, beside which stand a full database
/// and, while a merge of the two runs, a tmp database that takes the flushes. A look-up assembles
/// what is visible from prefetched extents, the cache and the databases, newest first.
///
/// One load() comes after the constructor and before anything else. A table directory belongs to
/// one process and to one live object: a directory may be loaded again only after the old object is
/// gone, and after a life that left a tmp database open only by another process. A process with a
/// live table must not fork and go on using it in the child.
///
/// Where operations return an int, it is 0 or a code handed on from LMDB or a system call; where
/// they throw, SysException with such a code. Every failure is logged.
///
/// Locks, in the order in which they are taken:
///  1. rwLock_: the extent cache. Exclusive for insert and for a flush, shared for look-ups.
///  2. tableLock_ (of the base class): the set of open databases. Exclusive where that changes,
///     shared around each walk of a database and around the transaction of a flush or host call.
///  3. prefetchLock_: prefetchExts_. A look-up releases it before it takes tableLock_.
///  4. the mutexes of the journal and of the offset store, and those of the host.
/// mergeMutex_ is held while a merge thread is joined; the merge thread takes tableLock_ only.
///
/// The order of the virtual operations and of the members is part of the binary interface.
class ZEFS_EXTMAP_API CMappingLMDB : public CMappingTable {
 public:
  // Names of the files of a table, behind its prefix.
  static constexpr char LSML0DB[] = "lsml0.mdb";             ///< small database
  static constexpr char FULLDB[] = "data.mdb";               ///< full database
  static constexpr char TMPDB[] = "tmp.mdb";                 ///< tmp database
  static constexpr char MERGEDB[] = "mergedb";               ///< merge database
  static constexpr char MDB_NO_SUBDIR_LOCK[] = "-lock";      ///< added by LMDB: a lock file
  static constexpr char MDB_DATANAME[] = "data.mdb";         ///< LMDB's name in a directory; unused
  static constexpr char MDB_LOCKNAME[] = "lock.mdb";         ///< likewise
  static constexpr char BLOOM_FILE[] = "bloom";              ///< bloom file
  static constexpr char BLOOM_TMP_FILE[] = "bloom.tmp";      ///< unused
  static constexpr char BLOOM_MERGE_FILE[] = "bloom.merge";  ///< bloom file of a running merge
  static constexpr const char* OFFSET_STORE_NAME = kOffsetStoreName;  ///< offset store

  /// Map size of the small and of the tmp database, bytes.
  static constexpr unsigned long kSmallMapSize = 0x100000000;

  /// The iterator (persistent/lmdb_iterator.h).
  class iteratorimp;

  /// A closed table; touches no disk. `dci` is asked for object ids, must outlive the table and is
  /// not owned. The map size of the full database is read from the configuration here.
  // NOLINTNEXTLINE(performance-unnecessary-value-param): as given
  CMappingLMDB(zefs::DataCacheManagementInterface* dci, std::string tableType);

  /// Joins a merge, closes the small and the full database and both side files, and drops what the
  /// cache holds. A tmp database stays open until the process ends. No other call may be running.
  ~CMappingLMDB() override;

  /// Maps [sOff, eOff) to an object, in memory only. `objCksum` and `trace` play no part. `data`,
  /// if not null, is the node that is asked for the object id until a flush has got it; one node
  /// belongs to one write. A range without bytes changes nothing. Returns 0. Takes rwLock_
  /// exclusively, and prefetchLock_ inside it.
  ///
  /// A prefetched run is dropped if the write covers its first start or reaches its end; after a
  /// write strictly inside the run, look-ups go on showing what was prefetched.
  int insert(long sOff, long eOff, const ObjectID* oid, long objOff, long objCksum, void* data,
             int dcOffset, FILE* trace) override;

  /// As insert, without a known container offset.
  int append(long sOff, long eOff, const ObjectID* oid, long objOff, long objCksum, void* data,
             FILE* trace) override;

  /// Raises the stored file size, and forgets the table's object id if this is its first change. A
  /// size at or below the stored one writes nothing. Returns 0, or LMDB's code of a failed put or
  /// commit, after which both sizes are as before. Throws if no transaction can be begun or the
  /// object id cannot be stored. Takes tableLock_ shared.
  int setFileSize(long size) override;

  /// Not part of this version: throws SysException(ENOSYS).
  int truncate(long size, FILE* trace) override;

  /// The larger of the stored file size and the end of what was written since. Takes no lock.
  long getFileSize() override;

  /// lower_bound(0, nullptr).
  iterator begin() override;

  /// The position behind the last extent. All of a table are equal. Takes no lock.
  iterator end() override;

  /// As lower_bound.
  iterator find(long offset, SharedLock* lock) override;

  /// Records in all databases less the four special items, so not the number of distinct extents; 0
  /// if that cannot be told. The cache is not counted. Takes tableLock_ shared; a running write
  /// transaction of the small database is waited for.
  long size() override;

  /// Sets both outputs to 0 and returns size().
  long getTableSize(long* extSize, long* keySize) override;

  /// The first extent whose end lies above `offset`, as far as it is visible: the one that holds
  /// `offset`, or else the next behind the hole, or end(). The largest `long` finds nothing.
  ///
  /// Takes rwLock_ shared. If the extent has a node and `lock` is not null, that lock is moved into
  /// `*lock`: the node stays valid until the caller releases it. A `*lock` that owns rwLock_
  /// already would wait for itself as soon as a writer waits: release it before the next call, or
  /// step with operator++, which takes no rwLock_. The same holds for ExtLMDB::update under it.
  iterator lower_bound(long offset, SharedLock* lock) override;

  /// As lower_bound over the extent cache alone, nothing clipped.
  iterator lower_bound_in_cache(long offset, SharedLock* lock) override;

  /// Opens the table in the directory `extentPath`, which is made if it is missing; a file in its
  /// place is removed. File names begin with `prefix`. `zxfsNoMmap` asks for side files without
  /// memory mapping, on a volume where IsZxfs says so. Takes over a finished merge, puts a tmp
  /// database that was left into its place, and replays a journal that was left.
  ///
  /// Returns 0 or the code of what failed in a table that is set up nevertheless. Throws
  /// SysException, or boost::filesystem::filesystem_error, for what cannot be recovered: the object
  /// is then good for destruction only. Takes no lock: no other call may be running.
  int load(const std::string& extentPath, bool zxfsNoMmap, const std::string& prefix) override;

  /// Not part of this version: throws SysException(ENOSYS).
  void UpdateExtPath(const std::string& path) override;

  /// Nothing to save: returns 0.
  int save(const std::string& path, long flags) override;

  /// Not part of this version, as the next three: throws SysException(ENOSYS).
  int remove(const std::string& path) override;
  void checkAndBackfillObjectIDUnlock(bool wait) override;
  void checkAndBackfillObjectID(std::set<void*>* released, bool force,
                                const std::string& shareScope, const std::string& share,
                                zefs::DataTransferManagement* transfer, UniqueLock* lock) override;
  int Snapshot(const std::string& source, const std::string& target) override;

  /// Does nothing: object ids reach this table through the flush.
  void SetObjectID(Ext* ext, const ObjectID& oid) override;

  /// Not part of this version, as the next five: throws SysException(ENOSYS).
  ObjectIDs GetObjectIdsAndOffsets(unsigned long start, unsigned long end) override;
  int UpdateObjectIdsByRange(unsigned long start, unsigned long end,
                             const ObjectIDs& list) override;
  void GetNewReferencedDCID(std::vector<std::pair<unsigned long, unsigned long>>* out) override;
  void GetReferencedFP(std::vector<FingerprintText>* out) override;
  int GetDCIDAndFPs(std::unordered_map<unsigned long, unsigned long>* dcids,
                    std::vector<crfp_digest_t>* fps) override;
  void GetDCIDAndBloomFilter(std::vector<std::pair<unsigned long, unsigned long>>* dcids,
                             std::unique_ptr<BloomFilter>* filter) override;

  /// Stores the table's own object id, of which container and fingerprint are kept; one without a
  /// fingerprint, or whose container is 64 or below, clears it. Returns 0; throws if it cannot be
  /// stored. Takes tableLock_ shared.
  int SetDOID(ObjectID* oid) override;

  /// Reads it: 0, or -1 and `*oid` as it was if there is none. The attributes of `*oid` are left
  /// alone. Takes tableLock_ shared.
  int GetDOID(ObjectID* oid) override;

  /// Not part of this version, as the next five: throws SysException(ENOSYS).
  bool IsDataChanged() override;
  void GetWritingNodes(std::vector<DataCacheNodePointerWithStatus>* out,
                       bool internal_flush) override;
  void GetDCInfoList(const PrefetchRange& range, std::list<DCInfo>* out) override;
  int GetEmptyDcOffsetList(std::vector<zefs::DCOffset>* out) override;
  int BackfillDcOffset(std::vector<zefs::DCOffset>& offsets) override;
  int AppendToRefreshDcOffsetList(long key, unsigned long dcid, crfp_digest_t fp) override;

  // Behind the operations of every table:

  /// Replaces `*released` by all nodes that cached extents point to, and forgets them: the extents
  /// stay cached without a node to ask. Takes tableLock_ shared and not rwLock_: no write, look-up
  /// or flush may be running. A node that was to be released before is not among them.
  virtual void GetExtentData(std::set<void*>* released);

  /// Stores the format version. Returns 0, or LMDB's code of a failed put or commit, after which
  /// the version is as before. Takes tableLock_ shared.
  virtual int setExtMapVersion(ExtMapVersion version);
  virtual ExtMapVersion getExtMapVersion() const;

  // The free functions of the same names, without their log lines. Not part of this version: throw
  // SysException(ENOSYS).
  static int GetMapAbsolutePath(const std::string& path, std::string* out);
  static int GetMapIndexSet(const std::string& path, std::set<std::string>* out);

  /// The words for an LMDB or system code, which also go to standard output.
  static std::string LMDBErrorMessage(int code);

 private:
  friend class ExtLMDB;
  friend struct MappingLMDBTestPeer;

  using Chain = std::list<LMDBContext*>;
  using ExtentCache = std::map<long, ExtLMDBEntry>;
  using NodeByKey = std::unordered_map<long, void*>;
  using KeysByNode = std::map<void*, std::set<long>>;

  // --- special items (special_items.cc). None takes a lock: the databases stay as they are while
  // load, or a caller with tableLock_, is at work. Failures throw unless told otherwise.

  /// The file size stored in `db`, 0 if there is none.
  long GetFileSize(LMDBContext* db);
  /// Loads file size (the stored one, or `size` if that is larger) and version from `db`, and
  /// stores the current version if there is none. 0, or LMDB's code if that could not be stored.
  int CheckAndLoadSpecialItems(LMDBContext* db, long size);
  /// The commit counter stored in `db`, stored as 0 if there is none. A failed look-up gives 0.
  long GetCommitCounter(LMDBContext* db);
  /// Sets container and fingerprint of `*out` to what `db` stores, or to the empty id, which is
  /// stored if there is none. 0.
  int GetDOIDUnlocked(LMDBContext* db, ObjectID* out);
  /// Stores container and fingerprint of `*id` in `db`. 0.
  int SetDOIDUnlocked(LMDBContext* db, ObjectID* id);
  /// On the first change of the table since the host took its references: notes the change and
  /// empties the table's object id, in the small database too if `persist`, for which it takes
  /// tableLock_ shared. 0.
  int ResetDOID(bool persist);
  /// `*id` without container and fingerprint; the attributes are left alone.
  static void MakeEmptyDOID(ObjectID* id);

  // --- environments (environments.cc). No locks; where the set of databases is shared already the
  // caller holds tableLock_ exclusively.

  /// Opens the database in the file `dbPath`, creating it if need be, with the key order of this
  /// format. `mapSize` is in bytes. 0, -1 for a null `db`, or LMDB's code. Until LMDB has opened
  /// the file a failure leaves nothing behind. Later ones leave the environment open for
  /// ClearDBEnv. A database that cannot be opened or ordered, which LMDB never refuses for the
  /// unnamed one, leaves the write transaction open as well: once the environment is closed, the
  /// thread must not begin another write transaction on any database.
  int SetupDBEnv(const std::string& dbPath, LMDBContext* db, unsigned long mapSize);
  /// Closes what is open of `db` and removes its lock file. 0, or -1 if that is still there. Throws
  /// nothing.
  int ClearDBEnv(LMDBContext* db);
  /// Makes `path` a directory of mode 0700, in place of whatever else stands there; one that exists
  /// is left as it is. False if that cannot be done.
  bool CheckAndCreateDir(const std::string& path);
  /// size() for a caller that holds tableLock_.
  long DbSizeUnlocked();
  /// Adds the records of `db` to `*entries`. False, and logged, if they cannot be counted.
  bool CountRecords(const LMDBContext& db, unsigned int flags, unsigned long* entries);
  static const std::map<int, std::string> mdb_errno_to_string;

  // --- life (lifecycle.cc)

  /// The path of one of the table's files.
  std::string PathOf(const char* name) const;
  /// SetupDBEnv, or throws.
  void OpenDatabase(const std::string& dbPath, LMDBContext* db, unsigned long mapSize);
  /// Applies a journal that was left to `db`, newest record first: deletes what was added, puts
  /// back what replaced something. 0, or the code of the journal.
  int ReplayExtentJournal(LMDBContext* db);
  int UndoRecord(const Extent& record, MDB_txn* txn, MDB_dbi dbi);
  /// Empties the memory of the table, but for sizes and shares. No lock.
  void ResetCache();

  // --- extent cache (extent_cache.cc)

  /// The cache update of insert. The caller holds rwLock_ exclusively. Always 0.
  int insert2Cache(long sOff, long eOff, const ObjectID* oid, long objOff, long objCksum,
                   void* data, int dcOffset);
  ExtentCache::iterator FirstEndingBehind(long offset);
  /// Cuts the cached extent at `at`, which overlaps [sOff, eOff), down to what survives. Returns
  /// the position of the next one.
  ExtentCache::iterator CutCached(ExtentCache::iterator at, long sOff, long eOff, const void* data);
  /// The cached extent of `pointer` is gone for good, and so is its hold on its node, whose users,
  /// if it has several, are `share`. `data` is the node of the write that displaced it.
  void DropNode(NodeByKey::iterator pointer, KeysByNode::iterator share, const void* data);
  void DropPrefetchedUnderWrite(long sOff, long eOff);
  void PushPending(long key);
  /// Adds the nodes that no cached extent needs any more to `*released` and forgets them. The
  /// caller holds rwLock_ exclusively.
  void RecycleDanglingPointer(std::set<void*>* released);

  // --- read path (read_path.cc)

  /// lower_bound for a caller that holds rwLock_.
  iterator lower_bound_unlocked(long offset);
  /// The iterator of a look-up that gave `nextEnd` and `ext`. If the extent has a node and `wanted`
  /// is not null, `*held` moves there.
  iterator FoundOrEnd(long nextEnd, const ExtLMDB& ext, SharedLock* held, SharedLock* wanted);
  /// The look-up itself: sets `*out` and `*nextEnd` to the extent and its end, or `*nextEnd` to -1.
  /// The caller holds rwLock_, or knows that the cache stands still. Always 0.
  int GetNextExtent(long offset, long* nextEnd, ExtLMDB* out);
  int GetNextExtentInCache(long offset, long* nextEnd, ExtLMDB* out);
  bool FindPrefetched(long offset, ExtLMDB* out);
  /// Always throws SysException(kErrNoStepBack): the table can only be walked forward.
  [[noreturn]] int GetPreviousExtent(long offset, long* previousEnd, ExtLMDB* out);
  [[noreturn]] int previousExtDB(long offset, long* previousEnd, ExtLMDB* out);
  /// The same over the databases: 0 and `*out`, or -1. Takes tableLock_ shared.
  int lowerBoundDB(long offset, ExtLMDB* out);
  /// One step of that walk: what `at` and older databases show. Each step has a read transaction of
  /// its own while the older ones are asked. The caller keeps the databases open.
  int GetNextExtInDBChain(const Chain& chain, Chain::iterator at, long offset, ExtLMDB* out);
  /// The same on cursors that the caller opened; never throws: -1 for a failed read as well.
  int GetNextExtInDBChain(const Chain& chain, Chain::iterator at,
                          std::list<MDBTXNCONTEXT>::iterator ctx, long offset, ExtLMDB* out);
  // What the two have in common, over what differs: where the cursor is from, how the next database
  // is asked, and what a failed read does.
  struct OwnTransaction;
  struct GivenCursor;
  template <typename Level>
  int NextExtAtLevel(const Level& level, long offset, ExtLMDB* out);
  static void LogChainStep(const LMDBContext& db, long offset);
  void getExtLMDBFromExtLMDBEntry(long key, const ExtLMDBEntry* entry, ExtLMDB* out);

  // --- merge (merge_thread.cc)

  /// Joins the merge thread if there is one. Takes mergeMutex_ and holds it throughout.
  void WaitingForMerge();

  LMDBContext tmpDb_;    // takes the flushes while it is open
  LMDBContext smallDb_;  // open from load on
  LMDBContext fullDb_;   // open from load on
  Chain dbChain_;        // the open databases, newest first
  std::unique_ptr<storage::utils::LmdbCApiWrapper> lmdbApi_;
  std::uint64_t bigTableMapSize_;                  // map size of the full database, bytes
  ExtentCache extCache_;                           // by end offset; ranges are disjoint
  NodeByKey extDataPointers_;                      // end offset to node
  KeysByNode sharedDataPointers_;                  // nodes behind several pieces
  std::set<void*> toBeReleased_;                   // nodes that back nothing any more
  std::list<long> objList_;                        // keys to flush, by arrival
  std::uint32_t objListCount_ = 0;                 // its length
  std::int64_t fileSize_ = -1;                     // as the cache knows it
  std::int64_t committedFileSize_ = -1;            // as stored
  ExtMapVersion extMapVersion_ = kCurrentVersion;  // of the full database
  bool truncatePending_ = false;                   // written only
  std::string path_;                               // table directory
  std::string prefix_;                             // of all file names
  bool merging_ = false;                           // a merge runs; not synchronised
  std::vector<pthread_t> mergeThreads_;            // the merge thread, at most one
  bool mergeSwitched_ = false;                     // written only
  std::unordered_map<unsigned long, unsigned long> newDcidRefs_;  // gathered by a merge
  std::int64_t commitCounter_ = 0;                // flushes since the last merge began
  bool dataChanged_ = true;                       // since the host took the references
  ObjectID doid_;                                 // the table's own object id
  boost::shared_mutex rwLock_;                    // guards the extent cache
  boost::mutex mergeMutex_;                       // guards mergeThreads_
  std::vector<ExtLMDB> prefetchExts_;             // by offset, disjoint
  boost::shared_mutex prefetchLock_;              // guards prefetchExts_
  std::int64_t objListScanned_ = 0;               // ready nodes of the scan under way
  std::list<long>::iterator objListCursor_;       // where it stopped; end: none
  std::unique_ptr<ExtentJournal> journal_;        // null unless "GENERIC"
  std::int32_t tableType_;                        // 0: "GENERIC", 2: "PROVISION", 1: any other
  std::unique_ptr<DcOffsetStore> dcOffsetStore_;  // from load on
  bool noMmap_ = false;                           // for side files
};

}  // namespace Aldenta::Qnd::Morene::Zefs
