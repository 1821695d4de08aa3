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

class Transaction;
struct MappingLMDBTestPeer;
struct MergeRecord;
struct MergeStep;

// Types of a table, compared exactly; an unknown one counts as ZEFS_INGEST_STR. Only the first has
// a journal.
inline constexpr char ZEFS_GENERIC_STR[] = "GENERIC";
inline constexpr char ZEFS_INGEST_STR[] = "INGEST";
inline constexpr char ZEFS_PROVISION_STR[] = "PROVISION";

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
/// they throw, SysException with such a code, and, those that work on files, also
/// boost::filesystem::filesystem_error. Failures are logged, but for the few that say otherwise.
///
/// Every operation that reads the databases throws SysException if it cannot begin its transaction
/// or open its cursor: with LMDB's code, or 0 for a database that is closed.
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

  /// A cursor and its transaction on one database of a chain.
  struct MDBTXNCONTEXT {
    MDB_cursor* cursor = nullptr;
    MDB_txn* txn = nullptr;
  };

  /// A closed table; touches no disk. `dci` is asked for object ids, must outlive the table and is
  /// not owned. The map size of the full database is read from the configuration here.
  // NOLINTNEXTLINE(performance-unnecessary-value-param): as given
  CMappingLMDB(zefs::DataCacheManagementInterface* dci, std::string tableType);

  /// Joins a merge, closes the small and the full database and both side files, and drops what the
  /// cache holds. A tmp database stays open until the process ends. No other call may be running.
  ~CMappingLMDB() override;

  /// Maps [sOff, eOff) to an object, in memory only. `objCksum` and `trace` play no part. `data`,
  /// if not null, is the node that is asked for the object id until a flush has got it; one node
  /// belongs to one write. `dcOffset` is the place of the range in its container, in bytes from 0,
  /// or -1 wanted, -2 given up, -3 never tracked (sidefiles/dc_offset_store.h). Of `objOff` the low
  /// 32 bits are kept, as a signed number: an object offset is below 2 GiB. Pieces that later
  /// writes leave of this one lose its attribute byte and flag. A range without bytes changes
  /// nothing. Returns 0. Takes rwLock_ exclusively, and prefetchLock_ inside it.
  ///
  /// A prefetched run is dropped if the write covers its first start or reaches its end; after a
  /// write strictly inside the run, look-ups go on showing what was prefetched.
  int insert(long sOff, long eOff, const ObjectID* oid, long objOff, long objCksum, void* data,
             int dcOffset, FILE* trace) override;

  /// As insert, without a known container offset.
  int append(long sOff, long eOff, const ObjectID* oid, long objOff, long objCksum, void* data,
             FILE* trace) override;

  /// Raises the stored file size, and forgets the table's object id if this is its first change. A
  /// size at or below the stored one changes nothing else. Returns 0, or LMDB's code of a failed
  /// put or commit, after which both sizes are as before. Throws if no transaction can be begun or
  /// the object id cannot be stored. Takes tableLock_ shared. No write or flush may be running. A
  /// size that is set while a merge ends may be missing after the next load.
  int setFileSize(long size) override;

  /// Makes the table end at `size`, 0 or more: extents behind it go, one that spans it is cut, and
  /// the stored file size becomes `size` even if that is more than before. Forgets the table's
  /// object id, its bloom file, all references and, while `prefetchEnabled` is set, all prefetched
  /// extents. `trace` plays no part. Waits for a merge that runs.
  ///
  /// Returns 0, or LMDB's code, or -1 for a failed read or delete; throws if a transaction cannot
  /// be begun or the emptied object id cannot be stored. Each database has a transaction of its
  /// own: after a failure those before it, and the cache, are cut, and the truncate can be
  /// repeated, which does not try again to store the emptied object id.
  ///
  /// A tmp database that a failed merge has left open keeps what it holds behind `size`, and its
  /// file size, which the next load brings back. A node behind `size` counts as released, also
  /// while a piece before `size` uses it. Takes neither rwLock_ nor tableLock_: no other call may
  /// be running.
  int truncate(long size, FILE* trace) override;

  /// The larger of the stored file size and the end of what was written since. Takes no lock.
  long getFileSize() override;

  /// lower_bound(0, nullptr), with its locks and failures.
  iterator begin() override;

  /// The position behind the last extent. All of a table are equal. Takes no lock.
  iterator end() override;

  /// As lower_bound.
  iterator find(long offset, SharedLock* lock) override;

  /// Records in all databases less the four special items, so not the number of distinct extents; 0
  /// if that cannot be told; throws if a transaction cannot be begun. The cache is not counted.
  /// Takes tableLock_ shared; a running write transaction of the small database is waited for.
  long size() override;

  /// Sets both outputs to 0 and returns size().
  long getTableSize(long* extSize, long* keySize) override;

  /// The first extent whose end lies above `offset`, as far as it is visible: the one that holds
  /// `offset`, or else the next behind the hole, or end(). The largest `long` finds nothing.
  ///
  /// Takes rwLock_ shared, and inside it for moments prefetchLock_ and then tableLock_, both
  /// shared. Throws SysException as the class says, and with LMDB's code for a read that fails;
  /// `*lock` is then as it was. If the extent has a node and `lock` is not null, that lock is moved
  /// into
  /// `*lock`: the node stays valid until the caller releases it. A `*lock` that owns rwLock_
  /// already would wait for itself as soon as a writer waits: release it before the next call, or
  /// step with operator++, which takes no rwLock_. The same holds for ExtLMDB::update under it.
  iterator lower_bound(long offset, SharedLock* lock) override;

  /// As lower_bound over the extent cache alone, nothing clipped. Takes rwLock_ only; fails never.
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

  /// The table's directory is now `path`: side files are made there from now on, and records that
  /// the offset store still had in memory are written under the old path. No file is moved, and the
  /// databases stay open as they are: the host moves the files before or after. Waits for a merge
  /// that runs. Takes tableLock_ exclusively. Nothing that may start a merge may be running.
  void UpdateExtPath(const std::string& path) override;

  /// Nothing to save: returns 0.
  int save(const std::string& path, long flags) override;

  /// Empties the table and deletes `path` and all below. Returns 0, also if there is no such path,
  /// or -1 if it could not be deleted. Passes filesystem_error through if it cannot be looked at.
  /// The environments stay open: destroying the table comes next. Waits for a merge that runs.
  /// Takes no lock: no other call may be running.
  int remove(const std::string& path) override;

  /// A forced flush for a caller that holds rwLock_ exclusively, and does without the nodes that
  /// come free. `wait` waits for the merge that it may start. The journal lives on. Throws
  /// SysException as checkAndBackfillObjectID.
  void checkAndBackfillObjectIDUnlock(bool wait) override;

  /// The flush: one synced transaction that stores the extents whose nodes have object ids. Does
  /// nothing below `batchUpdateThreshold` pending keys, and stores nothing below
  /// `objIdReadyThreshold` ready nodes, unless `force`, which also ends the journal and writes the
  /// offset store. `*released` becomes the set of nodes that the table is through with. If there
  /// are any and `lock` is not null, rwLock_ is handed over in `*lock`, still held exclusively: the
  /// nodes can be let go before any other thread sees the table. May start a merge, and waits for
  /// it when the merge has fallen behind.
  ///
  /// Takes rwLock_ exclusively, and keeps it while it waits. Throws SysException: the code of
  /// ProtectShare, after which the extents collected can no longer be flushed but stay readable; -1
  /// if a database refused them, and nothing is changed there; LMDB's code of a failed commit,
  /// which loses them. Also throws, after a commit that stands, if the records cannot be counted
  /// (-1, or LMDB's code) or there can be no merge thread. The host takes each of these for a
  /// failed write. -1 also stands for a journal or an offset store that could not be written.
  ///
  /// With `force`, a journal whose files cannot be looked at passes filesystem_error through, after
  /// the commit: what was flushed stands, the offset store is not written, and `*lock` is not
  /// handed over although `*released` is filled.
  void checkAndBackfillObjectID(std::set<void*>* released, bool force,
                                const std::string& shareScope, const std::string& share,
                                zefs::DataTransferManagement* transfer, UniqueLock* lock) override;

  /// Copies the full and the small database of this table, which lie in the directory `from`, to
  /// the directory `to`, made if it is missing, where load() opens them as a table. Overwrites
  /// nothing. What is in the cache only, and a tmp database that a failed merge has left, are not
  /// part of it. Waits for a merge that runs, and takes no lock: the host sees to it that no flush
  /// commits meanwhile, or the copy may be torn.
  ///
  /// Returns 0. Throws SysException: kErrIo if `to` cannot be made or a copy not synced, kErrExists
  /// if it is no directory, else the code of the failed copy. What was copied by then stays. Passes
  /// boost::filesystem::filesystem_error through if `to` cannot be looked at or its rights not set.
  int Snapshot(const std::string& from, const std::string& to) override;

  /// Does nothing: object ids reach this table through the flush.
  void SetObjectID(Ext* ext, const ObjectID& oid) override;

  /// The extents of the full database that end from `start` to `end`, both included, each with its
  /// own range, and without those of a container below 63. A `start` of 0 merges first, which
  /// brings in what the small database holds; any other lists the full database as it stands. Not
  /// there are what was flushed after a merge had begun that this one only waits for, what a failed
  /// merge has left in a tmp database, and, if this merge fails, which only the log tells, the
  /// small database. Neither number may be above the largest `long`.
  ///
  /// A failing read ends the list early, which only the log tells. Throws SysException if there can
  /// be no merge thread or no transaction. Holds tableLock_ shared, and holds off other writers of
  /// the full database.
  ObjectIDs GetObjectIdsAndOffsets(unsigned long start, unsigned long end) override;

  /// Gives extents of the full database another container, in one synced transaction: walks them
  /// from the first that ends at `start` or behind, and compares each with the first element of
  /// `ids`, which are by rising end, whose endOffset it does not pass; where the fingerprints are
  /// equal the extent gets the element's dcid. `end` is for the log. Drops all prefetched extents,
  /// while `prefetchEnabled` is set.
  ///
  /// Returns 0, or LMDB's code of a failed put, and then nothing is changed. A failing read also
  /// changes nothing, and returns 0: only the log tells. Throws SysException if there can be no
  /// transaction or it cannot be committed, and also if only the sync after the commit has failed.
  /// A merge that runs meanwhile reads the records from before, and its switch undoes the change:
  /// the host lists from 0 first and flushes nothing until this returns. Takes prefetchLock_ for a
  /// moment, then holds tableLock_ shared.
  int UpdateObjectIdsByRange(unsigned long start, unsigned long end, const ObjectIDs& ids) override;

  /// Not supported by this table, as the next: throws the int 0.
  void GetNewReferencedDCID(std::vector<std::pair<unsigned long, unsigned long>>* out) override;
  void GetReferencedFP(std::vector<FingerprintText>* out) override;

  /// Adds the bytes of all stored extents to `*dcids` by container, one that has newer data under
  /// its key not counted, and appends the fingerprints of all of them, replaced ones included. What
  /// is in the cache only is not seen. Returns 0. Throws SysException as the class says; both then
  /// hold what the databases before have added. Holds tableLock_ shared.
  int GetDCIDAndFPs(std::unordered_map<unsigned long, unsigned long>* dcids,
                    std::vector<crfp_digest_t>* fps) override;

  /// Replaces both by what the stored extents reference: pairs of container and bytes, and a filter
  /// of the fingerprints. Takes the full database's part from the bloom file of the last merge if
  /// that is sound, so extents replaced since then may still be counted. Clears what IsDataChanged
  /// reports. Throws SysException as the class says: the outputs are then as far as they got, and
  /// what IsDataChanged reports stays. Holds tableLock_ shared. A write that runs meanwhile might
  /// not count as a change.
  void GetDCIDAndBloomFilter(std::vector<std::pair<unsigned long, unsigned long>>* dcids,
                             std::unique_ptr<BloomFilter>* filter) override;

  /// Stores the table's own object id, of which container and fingerprint are kept; one without a
  /// fingerprint, or whose container is 64 or below, clears it. Returns 0; throws if it cannot be
  /// stored, after which GetDOID tells the new id all the same. Takes tableLock_ shared. No other
  /// SetDOID, no GetDOID and no flush may be running.
  int SetDOID(ObjectID* oid) override;

  /// Reads it: 0, or -1 and `*oid` as it was if there is none. The attributes of `*oid` are left
  /// alone. Takes tableLock_ shared. No SetDOID and no flush may be running.
  int GetDOID(ObjectID* oid) override;

  /// Whether the table was written to since GetDCIDAndBloomFilter, or has no object id of its own:
  /// the host must take the references again. Takes no lock.
  bool IsDataChanged() override;

  /// Replaces `*out` by the nodes of extents that wait for a flush, each once, with what
  /// GetNodeObjectID says of it; with `internal_flush` without those that answer 1. Takes nothing
  /// off the list, unlike the table in memory. Takes no lock: no write or flush may be running.
  void GetWritingNodes(std::vector<DataCacheNodePointerWithStatus>* out,
                       bool internal_flush) override;

  /// Appends to `*out` what the range consists of, container by container in the order met, and
  /// keeps the extents for look-ups if `prefetchEnabled` says so. Extents without a container are
  /// not listed. An extent that begins before the range is listed whole, and one behind it may be,
  /// marked by `inRange`. A container of an earlier call gets a new entry. An empty range changes
  /// nothing. An extent that only the last byte of the range lies in is left out, unless it is the
  /// first: a host that reads up to there asks for one byte more.
  ///
  /// Throws SysException if a transaction cannot be begun; nothing is changed then. A failing read
  /// leaves out its database and those older than it, for that step, so the plan may lack extents;
  /// at most the log tells. Holds rwLock_ and tableLock_ shared, and a write transaction on each
  /// database: it waits for other writers, and holds them off.
  void GetDCInfoList(const PrefetchRange& range, std::list<DCInfo>* out) override;

  /// Hands out the extents whose container offset is wanted, as DcOffsetStore::Read does, whose
  /// results these are. -1 if `out` is null. Holds rwLock_ shared.
  int GetEmptyDcOffsetList(std::vector<zefs::DCOffset>* out) override;

  /// Takes that list back, with what the host has found: the extent that a look-up of its start
  /// finds, which may be the next one behind a hole, goes back into the cache with the offset if it
  /// has the same container and fingerprint, and the next flush stores it. Of one that is partly
  /// covered by newer data only the visible piece goes back. What is still open is kept for the
  /// next list. Drops all prefetched extents, while `prefetchEnabled` is set. Returns 0, or the
  /// code of what failed; throws as a look-up does, or filesystem_error if the list that was out
  /// cannot be removed. The host may then hand it back again. An answer lasts from the flush on.
  /// Holds rwLock_ exclusively while it changes extents.
  int BackfillDcOffset(std::vector<zefs::DCOffset>& offsets) override;

  /// Asks for a fresh container offset of the extent that starts at `key`. Returns 0 or the code of
  /// a failed write of the list. Takes no lock of the table.
  int AppendToRefreshDcOffsetList(long key, unsigned long dcid, crfp_digest_t fp) override;

  // Behind the operations of every table:

  /// Replaces `*released` by all nodes that cached extents point to, and forgets them: the extents
  /// stay cached without a node to ask. Takes tableLock_ shared and not rwLock_: no write, look-up
  /// or flush may be running. A node that was to be released before is not among them.
  virtual void GetExtentData(std::set<void*>* released);

  /// Stores the format version. Returns 0, or LMDB's code of a failed put or commit, after which
  /// the version is as before. Throws if no transaction can be
  /// begun. Takes tableLock_ shared.
  virtual int setExtMapVersion(ExtMapVersion version);
  /// The version as last loaded, stored or set by a merge. Takes no lock.
  virtual ExtMapVersion getExtMapVersion() const;

  /// Sets `*out` to the directory of the table whose full database is `path`. -1, and `*out` as it
  /// was, unless the file name is FULLDB: that of a table with a prefix is not. Throws
  /// SysException(kErrInvalid) if `out` is null. Looks at no file.
  static int GetMapAbsolutePath(const std::string& path, std::string* out);
  /// The same under a second name.
  static int GetMapRelativePath(const std::string& path, std::string* out);
  /// Adds to `*out` the prefixes of the tables in the directory `path`. 0, or -1 if there is no
  /// such path. Passes boost::filesystem::filesystem_error through.
  static int GetMapIndexSet(const std::string& path, std::set<std::string>* out);

  /// The words for an LMDB or system code, which also go to standard output.
  static std::string LMDBErrorMessage(int code);

  /// Accepts what printf does, and does nothing with it.
  static void TraceLog(const char* format, ...) __attribute__((format(printf, 1, 2)));

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
  /// The same, stored, for a caller that has the table to itself or holds tableLock_ shared.
  void ForgetDOIDUnlocked();
  /// What both do in memory. False if the table has changed before.
  bool NoteFirstChange();
  /// Container and fingerprint of doid_, under ObjectLock(&doid_).
  ObjectID OwnId() const;
  void SetOwnId(const ObjectID& id);
  /// Stores them in the small database.
  void StoreOwnId();
  /// `*id` without container and fingerprint; the attributes are left alone.
  static void MakeEmptyDOID(ObjectID* id);

  // --- members that no lock covers (unsynchronised.cc): a merge changes them beside everybody
  // else, and whoever looks at one sees the value from before or after. They are plain, and apart
  // from load and truncate, which have the table to themselves, reached only through these, so that
  // a tool which looks for races can be told of them and of nothing else.

  /// A merge runs. Whoever sees an old value starts a merge that ends at once, or leaves it to the
  /// next flush.
  bool IsMerging() const;
  void SetMerging(bool merging);
  /// The file size as the cache knows it, and as it is stored.
  std::int64_t CachedSize() const;
  std::int64_t StoredSize() const;
  /// Both are `size` from now on.
  void SetSizes(std::int64_t size);
  /// A write ends at `end`, a flush has stored up to `end`, a merge has found the last extent to
  /// end there: what is below is raised.
  void RaiseCachedSize(std::int64_t end);
  void RaiseStoredSize(std::int64_t end);
  void RaiseMergedSize(std::int64_t end);
  void SetVersion(ExtMapVersion version);

  // --- environments (environments.cc). No locks; where the set of databases is shared already the
  // caller holds tableLock_ exclusively.

  /// Opens the database in the file `dbPath`, creating it if need be, with the key order of this
  /// format. `mapSize` is in bytes. 0, -1 for a null `db`, LMDB's code, or that with which
  /// CheckDatabaseFile refuses the file. Until LMDB has opened the file a failure leaves nothing
  /// behind, std::bad_alloc included. Later ones leave the environment open for ClearDBEnv. A
  /// database that cannot be opened or ordered, which LMDB never refuses for the unnamed one,
  /// leaves the write transaction open as well: once the environment is closed, the thread must not
  /// begin another write transaction on any database.
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

  // --- truncate (truncate.cc). No lock: the caller has the table to itself.

  /// Cuts the cache. Always 0.
  int truncateCache(long size);
  /// Cuts one database in one transaction. 0, -1 or LMDB's code; throws if none can be begun.
  int truncateDB(LMDBContext* db, long size);
  /// Forgets what earlier walks have counted.
  void ForgetSummaries();

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

  // --- flush (flush.cc). The caller holds rwLock_ exclusively.

  /// End offsets of extents whose object ids are known, with what is known.
  using ReadyExtents = std::map<long, ObjectIDAndDCOff>;

  /// Takes what is ready off objList_: with `force` up to the first node that is not ready, else,
  /// and only if objIdReadyThreshold nodes in a row are ready, all but the last of these. Adds to
  /// `*ids` what is to be stored and to `*released` the nodes that are needed no longer.
  void GetObjectIDMap(ReadyExtents* ids, std::set<void*>* released, bool force);
  /// Moves the cursor on over nodes that are ready, and counts them.
  void ScanReadyNodes();
  /// Takes everything before the cursor off the list.
  void CollectReadyExtents(ReadyExtents* ids, std::set<void*>* released, bool force);
  void CollectKnownExtent(long key, ReadyExtents* ids);
  void CollectSharers(void* node, const ObjectIDAndDCOff& value, ReadyExtents* ids);
  std::list<long>::iterator DropPending(std::list<long>::iterator at);

  /// Stores `ids` in the database that takes the flushes, starts a merge if one is due, and waits
  /// for it with `wait` or if the database has outgrown its limit. 0, -1, or LMDB's code of a
  /// failed commit. Takes tableLock_ shared, and not while it waits.
  int UpdateObjectID(const ReadyExtents& ids, bool wait);
  /// The transaction itself. The extents leave the cache before the commit: a failed one (LMDB's
  /// code) loses them, any other failure (-1) changes nothing. Throws if no transaction can be
  /// begun. The caller holds tableLock_.
  int UpdateObjectID(const ReadyExtents& ids, const LMDBContext& db);
  bool PutSpecialItems(const Transaction& transaction, long maxEnd);
  /// Stores one extent in place of whatever it overlaps, of which the pieces outside it stay, with
  /// journal records and offset-store entries beside. 0, -1 or a code; the caller aborts then.
  int insert2DB(const LMDBContext& db, MDB_txn* txn, MDB_cursor* cursor, long sOff, long eOff,
                const ObjectID* oid, long objOff, int dcOffset);
  /// Cuts the record under the cursor, [record.startOffset, end), down to what lies outside
  /// `extent`.
  int CutStored(MDB_cursor* cursor, const ExtLMDBEntry& record, long end, const Extent& extent,
                int dcOffset);
  // The log calls what fails in these two by the offset `named`.
  static int PutRecord(MDB_cursor* cursor, long end, ExtLMDBEntry entry, long named);
  int TrackDcOffset(long start, const Extent& extent, int dcOffset, long named);
  /// Adds a journal record of `extent` to a table that has a journal, starting it if need be.
  int WriteJournal(const Extent& extent, op_t op);
  bool JournalRuns() const;
  bool HasJournal() const { return tableType_ == 0; }
  /// Takes tableLock_ shared.
  bool IsTmpOpened();

  // --- merge (merge.cc, merge_thread.cc)

  /// Starts the merge thread unless one is there; one that has finished is joined first. Throws if
  /// there can be none. Takes mergeMutex_.
  void StartMergeThread();
  /// Joins the merge thread if there is one. Takes mergeMutex_ and holds it throughout.
  void WaitingForMerge();
  /// What the merge thread runs: one merge, with every failure in the log. Null.
  static void* MergeThreadMain(void* table);
  /// One whole merge: opens the tmp database for the flushes, writes the union of the small and the
  /// full database, and puts it in the place of both. 0 or a code; throws if it could not begin.
  /// Takes tableLock_ exclusively for its first and its last phase, and frees the replaced files
  /// after that.
  int MergeAndSwitch();
  class MergeDb;
  /// First phase. False if another merge is under way.
  bool BeginMerge();
  /// Opens an empty merge database.
  void PrepareMergeDb(MergeDb* merged);
  /// Last phase; the caller holds tableLock_ exclusively. `*result` is the last code seen.
  void SwitchDbs(MergeDb* merged, bool withBloom, int* result);
  int SwitchBloom(bool withBloom);
  /// Writes the union of `full` and the newer `incremental` to `merged`, and, if `withBloom`, what
  /// it references to the bloom file of the merge. 0, or throws. Takes tableLock_ for moments only.
  int MergeDBs(const LMDBContext& full, const LMDBContext& incremental, const LMDBContext& merged,
               bool withBloom);
  void WriteUnion(const LMDBContext& full, const LMDBContext& incremental,
                  const LMDBContext& merged, BloomFilter* bloom);
  /// Writes `record`, cut as `step` says, and counts its references into `bloom` if there is one.
  int PutMerged(const MergeRecord& record, const ExtLMDBEntry& entry, MDB_val value,
                const MergeStep& step, const Transaction& output, BloomFilter* bloom);
  void PutMergedSpecialItems(Transaction* output);
  void StoreMergedBloom(BloomFilter* bloom);

  // --- prefetch (prefetch.cc)

  /// Drops all prefetched extents, if `prefetchEnabled` says that there may be any. Takes
  /// prefetchLock_.
  void DropAllPrefetched();
  /// Begins a write transaction with a cursor on each database of `chain`, in that order, and adds
  /// them to `*ctxs`. Throws if one cannot be begun; none is open then.
  void CreateMDBTxnContext(const Chain& chain, std::list<MDBTXNCONTEXT>* ctxs);
  /// Ends them all. The elements stay, and must not be used any more.
  static void AbortMDBTxnContext(std::list<MDBTXNCONTEXT>* ctxs);
  class PlanTransactions;
  /// The first extent that ends behind `offset`, as far as it is visible, as GetNextExtent, but
  /// without prefetched extents and on open transactions. False if there is none.
  bool NextPlanned(long offset, PlanTransactions* transactions, ExtLMDB* out);
  /// Adds one extent to the plan, unless it has no container. `*byDcid` finds the containers that
  /// this plan has met.
  static void CheckAndFill(std::list<DCInfo>* out, std::map<unsigned long, DCInfo*>* byDcid,
                           const ExtLMDB& ext, const PrefetchRange& range);
  /// Merges a run of extents into prefetchExts_ and leaves `*fetched` unspecified, if
  /// `prefetchEnabled` says so. Takes prefetchLock_.
  void SafeMoveToExtCache(std::vector<ExtLMDB>* fetched);

  // --- references (references.cc)

  /// Walks `db` and adds bytes by container and fingerprints. The caller keeps the database open.
  void ConstructRefTable(const LMDBContext& db,
                         std::unordered_map<unsigned long, unsigned long>* dcidRefs,
                         BloomFilter* bloom);
  /// Walks `db` and adds start and container by key, unless the key is there, and every
  /// fingerprint.
  void ConstructRefTable(const LMDBContext& db,
                         std::unordered_map<long, std::pair<long, unsigned long>>* extents,
                         std::vector<crfp_digest_t>* fps);
  /// Counts one extent in. A null `bloom` means that a merge keeps no references: nothing happens.
  static void ConstructRefs(long key, const ExtLMDBEntry* entry,
                            std::unordered_map<unsigned long, unsigned long>* dcidRefs,
                            BloomFilter* bloom);
  /// True and the filter and references of the bloom file, if it is there, wanted and sound.
  bool LoadBloom(std::unique_ptr<BloomFilter>* bloom,
                 std::unordered_map<unsigned long, unsigned long>* refs);

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
  bool merging_ = false;                           // a merge runs
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
