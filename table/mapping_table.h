#pragma once

#include <array>
#include <cstdio>
#include <deque>
#include <list>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include <boost/thread/lock_types.hpp>
#include <boost/thread/shared_mutex.hpp>

#include "host/bloom_filter.h"
#include "host/data_cache.h"
#include "host/fingerprint.h"
#include "support/visibility.h"
#include "table/extent.h"
#include "table/references.h"
#include "table/sys_exception.h"

namespace Aldenta::Qnd::Morene::Zefs {

class CExtNode;
class CKeyNode;
class CMapNode;
struct MappingTableTestPeer;

/// The extent map of one file: which object lies behind which logical range. This class is the
/// in-memory table, a copy-on-write B+tree, and at the same time the interface of every table: an
/// operation without a meaning in memory does nothing here and returns a neutral value.
///
/// Offsets are logical file offsets in bytes, ranges are half-open. An `int` result of 0 means
/// success. An inconsistency of the tree throws SysException(kErrInternal), after which the table
/// must not be used any more. Running out of memory passes std::bad_alloc through, with the same
/// consequence if it happens inside a change.
///
/// Threads: any number, with the locking told at each operation. What an iterator refers to stays
/// valid only while the lock under which it was found is held: a later change may free it.
///
/// The order of the virtual operations is part of the binary interface.
class ZEFS_EXTMAP_API CMappingTable {
 public:
  using ObjectIDs = std::deque<zefs::DataCacheNode::ObjectID_With_Offset>;
  using SharedLock = boost::shared_lock<boost::shared_mutex>;
  using UniqueLock = boost::unique_lock<boost::shared_mutex>;
  using PrefetchRange = zefs::DataCacheManagementInterface::PrefetchRange;
  using DCInfo = zefs::DataCacheManagementInterface::DCInfo;

  /// What stands behind an iterator. Both sides of an assignment or comparison must be of one
  /// class: each implementation says what it does about a foreign one.
  class ZEFS_EXTMAP_API iteratorbase {
   public:
    virtual iteratorbase* clone() const = 0;  ///< a new heap copy, owned by the caller
    virtual iteratorbase& operator=(const iteratorbase& other) = 0;
    virtual Ext& operator*() const = 0;
    virtual Ext* operator->() const = 0;
    virtual iteratorbase& operator--() = 0;
    virtual iteratorbase& operator++() = 0;
    virtual bool operator==(const iteratorbase& other) const = 0;
    virtual bool operator!=(const iteratorbase& other) const = 0;
    virtual ~iteratorbase() = default;

   protected:
    iteratorbase() = default;
    iteratorbase(const iteratorbase&) = default;
  };

  /// A position in a table, as every finder returns it. A value: copying clones what stands behind
  /// it. An iterator without anything behind it throws SysException(kErrInternal) on every use but
  /// copying, assignment and destruction; on the right of a comparison it counts as another kind.
  class ZEFS_EXTMAP_API iterator {
   public:
    explicit iterator(std::unique_ptr<iteratorbase> base = nullptr) : base_(std::move(base)) {}
    iterator(const iterator& other) : base_(other.base_ ? other.base_->clone() : nullptr) {}
    iterator(iterator&& other) noexcept = default;
    iterator& operator=(const iterator& other);
    iterator& operator=(iterator&& other) noexcept = default;
    ~iterator() = default;

    Ext& operator*() const { return **checked(); }
    Ext* operator->() const { return checked()->operator->(); }
    iterator& operator++();
    iterator& operator--();
    bool operator==(const iterator& other) const;
    bool operator!=(const iterator& other) const;

   private:
    iteratorbase* checked() const {
      if (base_ == nullptr) {
        throw SysException(kErrInternal);
      }
      return base_.get();
    }

    std::unique_ptr<iteratorbase> base_;
  };

  /// The tree's iterator (table/tree_iterator.h).
  class iteratorimp;

  /// An empty table. `dci` is asked for object ids, may be null if GetWritingNodes is never used on
  /// a filled list, must outlive the table and is not owned.
  explicit CMappingTable(zefs::DataCacheManagementInterface* dci);

  CMappingTable(const CMappingTable&) = delete;
  CMappingTable& operator=(const CMappingTable&) = delete;

  /// Frees the tree. No other call may be running.
  virtual ~CMappingTable();

  /// Maps [sOff, eOff) to the object, cutting away whatever overlapped it; pieces that stay keep
  /// their object, with the offset inside it moved on where their front was cut. A null `oid` is
  /// the all-zero id. `objOff` is the offset of the range inside the object, `objCksum` a word that
  /// is kept and returned, `data` the node that holds the range in memory, or null; it is not
  /// owned. `dcOffset` is not kept here: every extent of the tree has -1. `trace`, if not null,
  /// gets the extent lines instead of the log. A range without bytes (`eOff` <= `sOff`) changes
  /// nothing. Returns 0. Takes tableLock_ exclusively from start to end.
  virtual int insert(long sOff, long eOff, const ObjectID* oid, long objOff, long objCksum,
                     void* data, int dcOffset, FILE* trace);

  /// Adds an extent behind all others. For extents that arrive in rising order with nothing to
  /// overlap: nothing is tested. An extent out of order leaves the tree unsorted, and one without
  /// bytes is stored and counted. Arguments and result otherwise as in insert. Takes tableLock_
  /// exclusively.
  virtual int append(long sOff, long eOff, const ObjectID* oid, long objOff, long objCksum,
                     void* data, FILE* trace);

  /// Records the file size. Here: returns 0 and records nothing.
  virtual int setFileSize(long size);

  /// Drops everything at and above `size`; an extent that spans it keeps its front. `trace`, if not
  /// null, gets the line of the front and, if anything was dropped, a newline at the end. Returns
  /// 0. Takes tableLock_ exclusively.
  virtual int truncate(long size, FILE* trace);

  /// The recorded file size. Here: 0.
  virtual long getFileSize();

  /// The first extent, or end(). Takes no lock: the caller holds tableLock_ or serialises.
  virtual iterator begin();

  /// The position behind the last extent. Takes no lock.
  virtual iterator end();

  /// The first extent whose end lies above `offset`: the one that holds it, or else the next behind
  /// it, or end(). The caller checks which. Takes tableLock_ shared for the search; `lock` is not
  /// used here.
  virtual iterator find(long offset, SharedLock* lock);

  /// Number of extents that the last change left. Takes no lock: the caller holds tableLock_ or
  /// serialises.
  virtual long size();

  /// Memory held by the nodes, in bytes. Sets `*nodes` to their number and `*slots` to the number
  /// of items that they have reserved room for. Writes the fixed sizes to standard output. Takes
  /// tableLock_ shared.
  virtual long getTableSize(long* nodes, long* slots);

  /// As find, but takes no lock: the caller holds tableLock_ or serialises.
  virtual iterator lower_bound(long offset, SharedLock* lock);

  /// As lower_bound, but only over what is in memory. Here: lower_bound(offset, nullptr).
  virtual iterator lower_bound_in_cache(long offset, SharedLock* lock);

  /// A flag that the library keeps for the host and neither reads nor writes. Not synchronised.
  virtual bool needCommit();
  virtual void setCommit(bool commit);

  /// Opens the table stored at `extentPath`. Here: nothing to do, returns 0.
  virtual int load(const std::string& extentPath, bool zxfsNoMmap, const std::string& prefix);

  /// The table's directory moved. Here: nothing.
  virtual void UpdateExtPath(const std::string& path);

  /// A hook for saving, with nothing to do in any table. Returns 0.
  virtual int save(const std::string& path, long flags);

  /// Deletes the stored table. Here: returns 0.
  virtual int remove(const std::string& path);

  /// Fills in object ids that have become known, without and with the table's own locking. Here:
  /// nothing.
  virtual void checkAndBackfillObjectIDUnlock(bool wait);
  virtual void checkAndBackfillObjectID(std::set<void*>* released, bool force,
                                        const std::string& shareScope, const std::string& share,
                                        zefs::DataTransferManagement* transfer, UniqueLock* lock);

  /// Copies the stored table. Here: returns 0.
  virtual int Snapshot(const std::string& source, const std::string& target);

  /// Replaces the object of a stored extent in place and moves its references. `ext` points to an
  /// extent of this table. Takes tableLock_ exclusively.
  virtual void SetObjectID(Ext* ext, const ObjectID& oid);

  /// The extents from the first one that ends above `start` up to, but without, the first one that
  /// ends above `end`, each whole and with its own range. So an extent that reaches into the range
  /// from below is listed and one that holds `end` is not. Takes no lock: the caller holds
  /// tableLock_ or serialises.
  virtual ObjectIDs GetObjectIdsAndOffsets(unsigned long start, unsigned long end);

  /// Replaces container ids. Each extent, from the one at the first element's startOffset on, is
  /// compared with the first element whose startOffset lies above the extent's sOff, and the last
  /// element takes all that remain; where the fingerprints are equal the extent gets the element's
  /// dcid and its references move. `start` and `end` are not used. An empty list does nothing.
  /// Returns 0. Takes tableLock_ exclusively.
  virtual int UpdateObjectIdsByRange(unsigned long start, unsigned long end, const ObjectIDs& list);

  /// Appends to `*out` the containers referenced, by rising id: pairs of dcid and bytes. Takes
  /// tableLock_ shared, as the next two.
  virtual void GetNewReferencedDCID(std::vector<std::pair<unsigned long, unsigned long>>* out);

  /// Appends to `*out` the fingerprints referenced, as text, in rising order.
  virtual void GetReferencedFP(std::vector<FingerprintText>* out);

  /// Both of the above under one lock.
  virtual void GetDCIDAndFP(std::vector<std::pair<unsigned long, unsigned long>>* dcids,
                            std::vector<FingerprintText>* fps);

  /// Containers with bytes, and binary fingerprints. Here: returns 0.
  virtual int GetDCIDAndFPs(std::unordered_map<unsigned long, unsigned long>* dcids,
                            std::vector<crfp_digest_t>* fps);

  /// Containers with bytes, and a filter of fingerprints. Here: nothing.
  virtual void GetDCIDAndBloomFilter(std::vector<std::pair<unsigned long, unsigned long>>* dcids,
                                     std::unique_ptr<BloomFilter>* filter);

  /// Stores and reads the table's own object id. Here: return 0.
  virtual int SetDOID(ObjectID* oid);
  virtual int GetDOID(ObjectID* oid);

  /// Whether the table changed since the host last took its references. Here: always true.
  virtual bool IsDataChanged();

  /// Length of the list of nodes that are still being written. Takes no lock: beside a running
  /// GetWritingNodes it is an estimate.
  virtual unsigned long GetWritingNodesCount() const;

  /// Moves entries off the list of writing nodes to `*out`, each with what GetNodeObjectID said of
  /// it. With `internal_flush` only if there are 10000 at least, and only up to the first that is
  /// not ready. Takes tableLock_ exclusively.
  virtual void GetWritingNodes(std::vector<DataCacheNodePointerWithStatus>* out,
                               bool internal_flush);

  /// Prefetch plan of a range. Here: nothing.
  virtual void GetDCInfoList(const PrefetchRange& range, std::list<DCInfo>* out);

  /// Entries without a container offset, offsets that have become known, and an entry that wants a
  /// new one. Here: return 0.
  virtual int GetEmptyDcOffsetList(std::vector<zefs::DCOffset>* out);
  virtual int BackfillDcOffset(std::vector<zefs::DCOffset>& offsets);
  virtual int AppendToRefreshDcOffsetList(long key, unsigned long dcid, crfp_digest_t fp);

  /// As find, without a lock and without a virtual call.
  iterator _find(long offset);

  /// Commits a change: the writer's view becomes the reader's. Frees nothing. Under tableLock_,
  /// held exclusively.
  void consist();

  /// Always true: looks at nothing.
  bool checkTable();

  /// Writes one newline to `file`, if it is not null.
  void dump(FILE* file);

  /// Does nothing.
  void dumpTree(bool writerView, FILE* file);

  /// Count one extent of `bytes` bytes in, or out of, the references. A dcid below kFirstDcid is
  /// never counted. Taking out of a container that is not counted leaves the fingerprint alone too;
  /// taking more bytes than are counted wraps around. The caller holds tableLock_ exclusively.
  void InnerAddReference(unsigned long dcid, FingerprintText fp, unsigned long bytes);
  void InnerDeleteReference(unsigned long dcid, FingerprintText fp, unsigned long bytes);

 private:
  friend class CExtNode;  // nodes enter themselves in the lists of the running change
  friend class CKeyNode;
  friend struct MappingTableTestPeer;

  iterator MakeIterator(CExtNode* node, int index) const;
  void CollectOverlaps(long sOff, long eOff, std::vector<Ext>* toDelete, std::vector<Ext>* toAdd);
  void DeleteFromTree(const Ext& ext, ReferenceChange* references, std::vector<CMapNode*>* scratch);
  void AddToTree(const Ext& ext, ReferenceChange* references, std::vector<CMapNode*>* scratch);
  void GrowRoot(std::vector<CMapNode*>* children);
  void FreeOldNodes();
  ReferenceChange StartReferenceChange();
  void AppendDcids(std::vector<std::pair<unsigned long, unsigned long>>* out) const;
  void AppendFingerprints(std::vector<FingerprintText>* out) const;

  // Between changes both views are one: the roots are the same, as are the sizes, and the three
  // lists of the running change are empty.
  std::int64_t rsize_ = 0;             // extents in the reader's view
  std::int64_t wsize_ = 0;             // extents in the writer's view
  CMapNode* rroot_;                    // never null; owns the tree
  CMapNode* wroot_;                    // never null
  std::vector<Key*> dirtyKeys_;        // keys in clean nodes whose wnode differs from rnode
  std::vector<CMapNode*> dirtyNodes_;  // nodes made in the running change
  std::set<CMapNode*> oldNodes_;       // replaced nodes, freed after the commit
  bool commit_ = false;

 protected:
  /// Forgets all references. No lock: the caller sees to it that nobody else uses them.
  void ClearReferences();

  /// Guards all of the in-memory table. Exclusive for every change, shared for the operations that
  /// say so; lower_bound, begin, end and iterators rely on the caller.
  boost::shared_mutex tableLock_;

 private:
  DcidReferences refsByDcid_;                     // bytes referenced, by container
  FingerprintReferences refsByFp_;                // extents, by fingerprint
  std::list<zefs::DataCacheNode*> writingNodes_;  // stays empty in this library
  std::uint64_t writingNodesCount_ = 0;

 protected:
  zefs::DataCacheManagementInterface* dci_;  ///< not owned

 private:
  FingerprintIndex fpIndex_;  // finds the entries of refsByFp_
};

/// Makes a table of the kind that ZefsConfig asks for. The caller owns it and deletes it through
/// this class. `tableType` concerns the persistent table only, which needs one load() before
/// anything else.
ZEFS_EXTMAP_API CMappingTable* CreateMappingTable(zefs::DataCacheManagementInterface* dci,
                                                  std::string tableType);

/// Where a table lies, and which tables a directory holds. With tables in memory: return 0 and
/// leave `*out` alone. With persistent tables: what the static operations of the same names in
/// persistent/mapping_lmdb.h tell. The first two are one behaviour under two names.
ZEFS_EXTMAP_API int GetMapRelativePath(const std::string& path, std::string* out);
ZEFS_EXTMAP_API int GetMapAbsolutePath(const std::string& path, std::string* out);
ZEFS_EXTMAP_API int GetMapIndexSet(const std::string& path, std::set<std::string>* out);

}  // namespace Aldenta::Qnd::Morene::Zefs

// The nodes of the tree belong to this header, and refer to the table.
#include "table/tree_nodes.h"
