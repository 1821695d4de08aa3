#pragma once

#include <atomic>
#include <memory>
#include <set>
#include <string>

#include <boost/filesystem/operations.hpp>

#include "tests/system/model/tables.h"

// Tables with a defect each, which the model has to find.

namespace zefs::test {

/// The genuine tables, with `Faulty` in the place of the one in memory.
template <typename Faulty>
TableMakers WithFaultyMemory() {
  TableMakers makers = Genuine();
  makers.memory = [](DataCacheManagementInterface* cache) {
    return std::unique_ptr<CMappingTable>(std::make_unique<Faulty>(cache));
  };
  return makers;
}

/// The same in the place of the stored one.
template <typename Faulty>
TableMakers WithFaultyStored() {
  TableMakers makers = Genuine();
  makers.stored = [](DataCacheManagementInterface* cache, const std::string& type) {
    return std::unique_ptr<CMappingTable>(std::make_unique<Faulty>(cache, type));
  };
  return makers;
}

/// A truncate leaves one byte too much.
class MemoryThatTruncatesLate final : public CMappingTable {
 public:
  using CMappingTable::CMappingTable;
  int truncate(long size, FILE* trace) override { return CMappingTable::truncate(size + 1, trace); }
};

/// Does not count the references of a rewritten object.
class MemoryThatForgetsReferences final : public CMappingTable {
 public:
  using CMappingTable::CMappingTable;
  void SetObjectID(Aldenta::Qnd::Morene::Zefs::Ext* ext, const ObjectID& oid) override {
    ext->objectID = oid;
  }
};

/// Every write but those of few bytes is one byte short.
class StoredThatWritesShort final : public CMappingLMDB {
 public:
  using CMappingLMDB::CMappingLMDB;
  int insert(long sOff, long eOff, const ObjectID* oid, long objOff, long objCksum, void* data,
             int dcOffset, FILE* trace) override {
    return CMappingLMDB::insert(sOff, eOff - (eOff - sOff > 64 ? 1 : 0), oid, objOff, objCksum,
                                data, dcOffset, trace);
  }
};

/// Loses what was flushed since the last merge when it is loaded again.
class StoredThatForgetsItsSmallDatabase final : public CMappingLMDB {
 public:
  using CMappingLMDB::CMappingLMDB;
  int load(const std::string& path, bool noMmap, const std::string& prefix) override {
    boost::filesystem::remove(path + "/lsml0.mdb");
    return CMappingLMDB::load(path, noMmap, prefix);
  }
};

/// A flush keeps its nodes.
class StoredThatReleasesNothing final : public CMappingLMDB {
 public:
  using CMappingLMDB::CMappingLMDB;
  void checkAndBackfillObjectID(std::set<void*>* released, bool force,
                                const std::string& shareScope, const std::string& share,
                                DataTransferManagement* transfer, UniqueLock* lock) override {
    CMappingLMDB::checkAndBackfillObjectID(released, force, shareScope, share, transfer, lock);
    released->clear();
  }
};

/// Drops one write in forty.
class StoredThatDropsWrites final : public CMappingLMDB {
 public:
  using CMappingLMDB::CMappingLMDB;
  int insert(long sOff, long eOff, const ObjectID* oid, long objOff, long objCksum, void* data,
             int dcOffset, FILE* trace) override {
    constexpr int kOneIn = 40;
    return ++writes_ % kOneIn == 0
               ? 0
               : CMappingLMDB::insert(sOff, eOff, oid, objOff, objCksum, data, dcOffset, trace);
  }

 private:
  std::atomic<int> writes_{0};
};

}  // namespace zefs::test
