#pragma once

#include <list>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "persistent/lmdb_iterator.h"
#include "persistent/mapping_lmdb.h"

namespace Aldenta::Qnd::Morene::Zefs {

/// Reaches what the persistent table keeps to itself. Each name is the table's.
struct MappingLMDBTestPeer {
  using Iterator = CMappingLMDB::iteratorimp;
  using ConstChain = const std::list<LMDBContext*>;

  explicit MappingLMDBTestPeer(CMappingLMDB& t) : table(t) {}

  LMDBContext& tmpDb() { return table.tmpDb_; }
  LMDBContext& smallDb() { return table.smallDb_; }
  LMDBContext& fullDb() { return table.fullDb_; }
  std::list<LMDBContext*>& dbChain() { return table.dbChain_; }
  storage::utils::LmdbCApiWrapper* lmdbApi() { return table.lmdbApi_.get(); }
  std::uint64_t& bigTableMapSize() { return table.bigTableMapSize_; }
  std::map<long, ExtLMDBEntry>& extCache() { return table.extCache_; }
  std::unordered_map<long, void*>& extDataPointers() { return table.extDataPointers_; }
  std::map<void*, std::set<long>>& sharedDataPointers() { return table.sharedDataPointers_; }
  std::set<void*>& toBeReleased() { return table.toBeReleased_; }
  std::list<long>& objList() { return table.objList_; }
  std::uint32_t& objListCount() { return table.objListCount_; }
  std::int64_t& fileSize() { return table.fileSize_; }
  std::int64_t& committedFileSize() { return table.committedFileSize_; }
  ExtMapVersion& extMapVersion() { return table.extMapVersion_; }
  bool& truncatePending() { return table.truncatePending_; }
  std::string& path() { return table.path_; }
  std::string& prefix() { return table.prefix_; }
  bool& merging() { return table.merging_; }
  std::vector<pthread_t>& mergeThreads() { return table.mergeThreads_; }
  bool& mergeSwitched() { return table.mergeSwitched_; }
  std::unordered_map<unsigned long, unsigned long>& newDcidRefs() { return table.newDcidRefs_; }
  std::int64_t& commitCounter() { return table.commitCounter_; }
  bool& dataChanged() { return table.dataChanged_; }
  ObjectID& doid() { return table.doid_; }
  boost::shared_mutex& rwLock() { return table.rwLock_; }
  boost::mutex& mergeMutex() { return table.mergeMutex_; }
  boost::shared_mutex& tableLock() { return table.tableLock_; }
  std::vector<ExtLMDB>& prefetchExts() { return table.prefetchExts_; }
  boost::shared_mutex& prefetchLock() { return table.prefetchLock_; }
  std::int64_t& objListScanned() { return table.objListScanned_; }
  std::list<long>::iterator& objListCursor() { return table.objListCursor_; }
  ExtentJournal* journal() { return table.journal_.get(); }
  std::int32_t& tableType() { return table.tableType_; }
  DcOffsetStore* dcOffsetStore() { return table.dcOffsetStore_.get(); }
  bool& noMmap() { return table.noMmap_; }
  // The members themselves, for where they lie in the table.
  const auto& lmdbApiMember() { return table.lmdbApi_; }
  const auto& journalMember() { return table.journal_; }
  const auto& dcOffsetStoreMember() { return table.dcOffsetStore_; }

  long GetFileSize(LMDBContext* db) { return table.GetFileSize(db); }
  int CheckAndLoadSpecialItems(LMDBContext* db, long size) {
    return table.CheckAndLoadSpecialItems(db, size);
  }
  long GetCommitCounter(LMDBContext* db) { return table.GetCommitCounter(db); }
  int GetDOIDUnlocked(LMDBContext* db, ObjectID* out) { return table.GetDOIDUnlocked(db, out); }
  int SetDOIDUnlocked(LMDBContext* db, ObjectID* id) { return table.SetDOIDUnlocked(db, id); }
  int ResetDOID(bool persist) { return table.ResetDOID(persist); }
  int SetupDBEnv(const std::string& path, LMDBContext* db, unsigned long mapSize) {
    return table.SetupDBEnv(path, db, mapSize);
  }
  int ClearDBEnv(LMDBContext* db) { return table.ClearDBEnv(db); }
  bool CheckAndCreateDir(const std::string& path) { return table.CheckAndCreateDir(path); }
  long DbSizeUnlocked() { return table.DbSizeUnlocked(); }
  int ReplayExtentJournal(LMDBContext* db) { return table.ReplayExtentJournal(db); }
  void ResetCache() { table.ResetCache(); }
  int insert2Cache(long sOff, long eOff, const ObjectID* oid, long objOff, void* data,
                   int dcOffset) {
    return table.insert2Cache(sOff, eOff, oid, objOff, 0, data, dcOffset);
  }
  void RecycleDanglingPointer(std::set<void*>* released) { table.RecycleDanglingPointer(released); }
  CMappingTable::iterator lower_bound_unlocked(long offset) {
    return table.lower_bound_unlocked(offset);
  }
  int GetNextExtent(long offset, long* nextEnd, ExtLMDB* out) {
    return table.GetNextExtent(offset, nextEnd, out);
  }
  int GetNextExtentInCache(long offset, long* nextEnd, ExtLMDB* out) {
    return table.GetNextExtentInCache(offset, nextEnd, out);
  }
  int lowerBoundDB(long offset, ExtLMDB* out) { return table.lowerBoundDB(offset, out); }
  int GetNextExtInDBChain(ConstChain& chain, std::list<LMDBContext*>::iterator at, long offset,
                          ExtLMDB* out) {
    return table.GetNextExtInDBChain(chain, at, offset, out);
  }
  int GetNextExtInDBChain(ConstChain& chain, std::list<LMDBContext*>::iterator at,
                          std::list<CMappingLMDB::MDBTXNCONTEXT>::iterator ctx, long offset,
                          ExtLMDB* out) {
    return table.GetNextExtInDBChain(chain, at, ctx, offset, out);
  }
  void getExtLMDBFromExtLMDBEntry(long key, const ExtLMDBEntry* entry, ExtLMDB* out) {
    table.getExtLMDBFromExtLMDBEntry(key, entry, out);
  }
  void GetPreviousExtent(long offset, long* previousEnd, ExtLMDB* out) {
    table.GetPreviousExtent(offset, previousEnd, out);
  }
  void previousExtDB(long offset, long* previousEnd, ExtLMDB* out) {
    table.previousExtDB(offset, previousEnd, out);
  }
  void GetObjectIDMap(std::map<long, ObjectIDAndDCOff>* ids, std::set<void*>* released,
                      bool force) {
    table.GetObjectIDMap(ids, released, force);
  }
  int UpdateObjectID(const std::map<long, ObjectIDAndDCOff>& ids, bool wait) {
    return table.UpdateObjectID(ids, wait);
  }
  int UpdateObjectID(const std::map<long, ObjectIDAndDCOff>& ids, const LMDBContext& db) {
    return table.UpdateObjectID(ids, db);
  }
  int insert2DB(const LMDBContext& db, MDB_txn* txn, MDB_cursor* cursor, long sOff, long eOff,
                const ObjectID* oid, long objOff, int dcOffset) {
    return table.insert2DB(db, txn, cursor, sOff, eOff, oid, objOff, dcOffset);
  }
  void StartMergeThread() { table.StartMergeThread(); }
  void WaitingForMerge() { table.WaitingForMerge(); }
  static void* MergeThreadMain(void* t) { return CMappingLMDB::MergeThreadMain(t); }
  int MergeAndSwitch() { return table.MergeAndSwitch(); }
  int MergeDBs(const LMDBContext& full, const LMDBContext& incremental, const LMDBContext& merged,
               bool withBloom) {
    return table.MergeDBs(full, incremental, merged, withBloom);
  }
  void ConstructRefTable(const LMDBContext& db,
                         std::unordered_map<unsigned long, unsigned long>* dcidRefs,
                         BloomFilter* bloom) {
    table.ConstructRefTable(db, dcidRefs, bloom);
  }
  void ConstructRefTable(const LMDBContext& db,
                         std::unordered_map<long, std::pair<long, unsigned long>>* extents,
                         std::vector<crfp_digest_t>* fps) {
    table.ConstructRefTable(db, extents, fps);
  }
  static void ConstructRefs(long key, const ExtLMDBEntry* entry,
                            std::unordered_map<unsigned long, unsigned long>* dcidRefs,
                            BloomFilter* bloom) {
    CMappingLMDB::ConstructRefs(key, entry, dcidRefs, bloom);
  }
  int truncateCache(long size) { return table.truncateCache(size); }
  int truncateDB(LMDBContext* db, long size) { return table.truncateDB(db, size); }
  void CreateMDBTxnContext(ConstChain& chain, std::list<CMappingLMDB::MDBTXNCONTEXT>* ctxs) {
    table.CreateMDBTxnContext(chain, ctxs);
  }
  static void AbortMDBTxnContext(std::list<CMappingLMDB::MDBTXNCONTEXT>* ctxs) {
    CMappingLMDB::AbortMDBTxnContext(ctxs);
  }
  static void CheckAndFill(std::list<CMappingTable::DCInfo>* out,
                           std::map<unsigned long, CMappingTable::DCInfo*>* byDcid,
                           const ExtLMDB& ext, const CMappingTable::PrefetchRange& range) {
    CMappingLMDB::CheckAndFill(out, byDcid, ext, range);
  }
  void SafeMoveToExtCache(std::vector<ExtLMDB>* fetched) { table.SafeMoveToExtCache(fetched); }
  void ReplaceLmdbApi(std::unique_ptr<storage::utils::LmdbCApiWrapper> api) {
    table.lmdbApi_ = std::move(api);
  }
  static const std::map<int, std::string>& mdb_errno_to_string() {
    return CMappingLMDB::mdb_errno_to_string;
  }

  CMappingLMDB& table;
};

}  // namespace Aldenta::Qnd::Morene::Zefs
