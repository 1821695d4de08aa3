#include "table/mapping_table.h"

#include <typeinfo>

#include "host/zefs_log.h"
#include "table/node_prefetch.h"
#include "table/tree_iterator.h"
#include "table/tree_nodes.h"

// The in-memory table: life, append, look-ups and iterators, and the operations that mean nothing
// in memory.

namespace Aldenta::Qnd::Morene::Zefs {

namespace {

/// Stands for an iterator with nothing behind it on the right of a comparison: of no table's kind.
class NoPosition final : public CMappingTable::iteratorbase {
 public:
  NoPosition() = default;
  NoPosition(const NoPosition&) = default;
  NoPosition& operator=(const NoPosition&) { return *this; }

  iteratorbase* clone() const override { return new NoPosition(*this); }
  iteratorbase& operator=(const iteratorbase&) override { return *this; }
  Ext& operator*() const override { throw SysException(kErrInternal); }
  Ext* operator->() const override { throw SysException(kErrInternal); }
  iteratorbase& operator--() override { return *this; }
  iteratorbase& operator++() override { return *this; }
  bool operator==(const iteratorbase& other) const override { return this == &other; }
  bool operator!=(const iteratorbase& other) const override { return this != &other; }
};

const NoPosition kNoPosition;

const CMappingTable::iteratorbase& OrNoPosition(const CMappingTable::iteratorbase* position) {
  return position == nullptr ? kNoPosition : *position;
}

const CMappingTable::iteratorimp& SameKind(const CMappingTable::iteratorbase& other) {
  if (typeid(other) != typeid(CMappingTable::iteratorimp)) {
    throw SysException(kErrInternal);
  }
  return static_cast<const CMappingTable::iteratorimp&>(other);
}

}  // namespace

// --- the value class -------------------------------------------------------------------------

CMappingTable::iterator& CMappingTable::iterator::operator=(const iterator& other) {
  if (this != &other) {
    base_.reset(other.base_ ? other.base_->clone() : nullptr);
  }
  return *this;
}

CMappingTable::iterator& CMappingTable::iterator::operator++() {
  ++*checked();
  return *this;
}

CMappingTable::iterator& CMappingTable::iterator::operator--() {
  --*checked();
  return *this;
}

bool CMappingTable::iterator::operator==(const iterator& other) const {
  return *checked() == OrNoPosition(other.base_.get());
}

bool CMappingTable::iterator::operator!=(const iterator& other) const {
  return *checked() != OrNoPosition(other.base_.get());
}

// --- the tree's iterator ---------------------------------------------------------------------

CMappingTable::iteratorbase* CMappingTable::iteratorimp::clone() const {
  return new iteratorimp(*this);
}

CMappingTable::iteratorbase& CMappingTable::iteratorimp::operator=(const iteratorbase& other) {
  return *this = SameKind(other);
}

Ext& CMappingTable::iteratorimp::operator*() const {
  return node->extents[static_cast<std::size_t>(index)];
}

Ext* CMappingTable::iteratorimp::operator->() const {
  return &**this;
}

CMappingTable::iteratorbase& CMappingTable::iteratorimp::operator++() {
  while (node != nullptr) {
    if (index + 1 < static_cast<int>(node->extents.size())) {
      ++index;
      return *this;
    }
    node = node->next;
    index = -1;                                            // an empty leaf is passed over
    PrefetchNode(node == nullptr ? nullptr : node->next);  // while this leaf is worked on
  }
  index = 0;
  return *this;
}

CMappingTable::iteratorbase& CMappingTable::iteratorimp::operator--() {
  while (node != nullptr) {
    if (index != 0) {
      --index;
      return *this;
    }
    node = node->prev;
    index = node == nullptr ? 0 : static_cast<int>(node->extents.size());
  }
  index = 0;
  return *this;
}

bool CMappingTable::iteratorimp::operator==(const iteratorbase& other) const {
  const iteratorimp& position = SameKind(other);
  return node == position.node && index == position.index;
}

bool CMappingTable::iteratorimp::operator!=(const iteratorbase& other) const {
  const iteratorimp& position = SameKind(other);
  return node != position.node || index != position.index;
}

// --- life and append -------------------------------------------------------------------------

CMappingTable::CMappingTable(zefs::DataCacheManagementInterface* dci)
    : rroot_(new CExtNode(false)), wroot_(rroot_), dci_(dci) {}

CMappingTable::~CMappingTable() {
  rroot_->deleteTree();
}

int CMappingTable::append(long sOff, long eOff, const ObjectID* oid, long objOff, long objCksum,
                          void* data, FILE* trace) {
  UniqueLock lock(tableLock_);
  const Ext ext(sOff, eOff, oid, objOff, objCksum, data);
  std::vector<CMapNode*> local;
  rroot_->appendExt(this, ext, &local);
  StartReferenceChange().Add(ext.objectID, LengthOf(ext));
  if (local.size() == 1) {
    local.insert(local.begin(), rroot_);
    rroot_ = new CKeyNode(&local, false);
  }
  if (trace != nullptr) {
    fprintf(trace, "append extent [%lu, %lu, %lu]\n", static_cast<unsigned long>(sOff),
            static_cast<unsigned long>(eOff), static_cast<unsigned long>(objOff));
  } else {
    ZEFS_LOG(zefs::kLogTrace, "append extent [%llu, %llu, %llu]",
             static_cast<unsigned long long>(sOff), static_cast<unsigned long long>(eOff),
             static_cast<unsigned long long>(objOff));
  }
  ++rsize_;
  wsize_ = rsize_;
  wroot_ = rroot_;
  return 0;
}

// --- look-ups --------------------------------------------------------------------------------

CMappingTable::iterator CMappingTable::MakeIterator(CExtNode* node, int index) const {
  return iterator(std::make_unique<iteratorimp>(node, index));
}

CMappingTable::iterator CMappingTable::_find(long offset) {
  return rsize_ == 0 ? MakeIterator(nullptr, 0) : CMappingTable::lower_bound(offset, nullptr);
}

CMappingTable::iterator CMappingTable::find(long offset, SharedLock* /*lock*/) {
  const SharedLock lock(tableLock_);
  return _find(offset);
}

CMappingTable::iterator CMappingTable::lower_bound(long offset, SharedLock* /*lock*/) {
  int index = 0;
  CMapNode* const leaf = rroot_->lower_bound(offset, &index);
  return MakeIterator(static_cast<CExtNode*>(leaf), index);
}

CMappingTable::iterator CMappingTable::lower_bound_in_cache(long offset, SharedLock* /*lock*/) {
  return lower_bound(offset, nullptr);
}

CMappingTable::iterator CMappingTable::begin() {
  return _find(rroot_->getStartOffset());
}

CMappingTable::iterator CMappingTable::end() {
  return MakeIterator(nullptr, 0);
}

long CMappingTable::size() {
  return rsize_;
}

// --- the commit flag -------------------------------------------------------------------------

bool CMappingTable::needCommit() {
  return commit_;
}

void CMappingTable::setCommit(bool commit) {
  commit_ = commit;
}

// --- what has no meaning in memory -----------------------------------------------------------

int CMappingTable::setFileSize(long /*size*/) {
  return 0;
}

long CMappingTable::getFileSize() {
  return 0;
}

int CMappingTable::load(const std::string& /*extentPath*/, bool /*zxfsNoMmap*/,
                        const std::string& /*prefix*/) {
  return 0;
}

void CMappingTable::UpdateExtPath(const std::string& /*path*/) {}

int CMappingTable::save(const std::string& /*path*/, long /*flags*/) {
  return 0;
}

int CMappingTable::remove(const std::string& /*path*/) {
  return 0;
}

void CMappingTable::checkAndBackfillObjectIDUnlock(bool /*wait*/) {}

void CMappingTable::checkAndBackfillObjectID(std::set<void*>* /*released*/, bool /*force*/,
                                             const std::string& /*shareScope*/,
                                             const std::string& /*share*/,
                                             zefs::DataTransferManagement* /*transfer*/,
                                             UniqueLock* /*lock*/) {}

int CMappingTable::Snapshot(const std::string& /*source*/, const std::string& /*target*/) {
  return 0;
}

int CMappingTable::GetDCIDAndFPs(std::unordered_map<unsigned long, unsigned long>* /*dcids*/,
                                 std::vector<crfp_digest_t>* /*fps*/) {
  return 0;
}

void CMappingTable::GetDCIDAndBloomFilter(
    std::vector<std::pair<unsigned long, unsigned long>>* /*dcids*/,
    std::unique_ptr<BloomFilter>* /*filter*/) {}

int CMappingTable::SetDOID(ObjectID* /*oid*/) {
  return 0;
}

int CMappingTable::GetDOID(ObjectID* /*oid*/) {
  return 0;
}

bool CMappingTable::IsDataChanged() {
  return true;
}

void CMappingTable::GetDCInfoList(const PrefetchRange& /*range*/, std::list<DCInfo>* /*out*/) {}

int CMappingTable::GetEmptyDcOffsetList(std::vector<zefs::DCOffset>* /*out*/) {
  return 0;
}

int CMappingTable::BackfillDcOffset(std::vector<zefs::DCOffset>& /*offsets*/) {
  return 0;
}

int CMappingTable::AppendToRefreshDcOffsetList(long /*key*/, unsigned long /*dcid*/,
                                               crfp_digest_t /*fp*/) {
  return 0;
}

}  // namespace Aldenta::Qnd::Morene::Zefs
