#include <cerrno>
#include <exception>
#include <stdexcept>
#include <unistd.h>

#include <sys/stat.h>

#include "host/config.h"
#include "host/zefs_log.h"
#include "persistent/mapping_lmdb.h"
#include "persistent/seek.h"
#include "persistent/transaction.h"
#include "sidefiles/bloom_persist.h"
#include "support/measure_cpu.h"

// What the stored extents of a table reference: containers with their bytes, and fingerprints.

namespace Aldenta::Qnd::Morene::Zefs {

using zefs::kLogFailure;
using zefs::kLogRecoverable;
using zefs::kLogStep;
using zefs::kLogTrace;

namespace {

constexpr double kFalsePositiveRate = 0.02;
constexpr std::size_t kTooManyContainers = std::size_t{1} << 60;

unsigned long BytesOf(long end, long start) {
  return static_cast<unsigned long>(end) - static_cast<unsigned long>(start);
}

/// Calls `take(key, entry)` for every extent of `db` by rising key.
template <typename Take>
void WalkExtents(const LMDBContext& db, const std::string& tablePath, Take take) {
  const Transaction transaction(db, Transaction::kReadOnly, tablePath);
  constexpr std::int64_t kFirst = 0;  // the special items lie before it
  MDB_val key;
  MDB_val value;
  int ret = SeekRecord(transaction.cursor(), kFirst, &key, &value);
  while (ret == 0) {
    const std::int64_t end = ReadKey(key);
    take(end, ReadRecord(value));
    ret = NextRecord(transaction.cursor(), end, &key, &value);
  }
  if (ret != MDB_NOTFOUND) {
    ZEFS_LOG(kLogFailure,
             "Failed to read a cursor for generating unique dcid list, return value is %d", ret);
    throw SysException(ret);
  }
}

}  // namespace

void CMappingLMDB::GetNewReferencedDCID(
    std::vector<std::pair<unsigned long, unsigned long>>* /*out*/) {
  throw 0;  // NOLINT(hicpp-exception-baseclass): what hosts of this table expect
}

void CMappingLMDB::GetReferencedFP(std::vector<FingerprintText>* /*out*/) {
  throw 0;  // NOLINT(hicpp-exception-baseclass): as above
}

void CMappingLMDB::ConstructRefTable(const LMDBContext& db,
                                     std::unordered_map<unsigned long, unsigned long>* dcidRefs,
                                     BloomFilter* bloom) {
  WalkExtents(db, path_, [&](long key, const ExtLMDBEntry& entry) {
    (*dcidRefs)[entry.dcid] += BytesOf(key, entry.startOffset);
    bloom->Insert(entry.fp);
  });
}

void CMappingLMDB::ConstructRefTable(
    const LMDBContext& db, std::unordered_map<long, std::pair<long, unsigned long>>* extents,
    std::vector<crfp_digest_t>* fps) {
  WalkExtents(db, path_, [&](long key, const ExtLMDBEntry& entry) {
    extents->emplace(key, std::make_pair(entry.startOffset, entry.dcid));
    fps->push_back(entry.fp);
  });
}

void CMappingLMDB::ConstructRefs(long key, const ExtLMDBEntry* entry,
                                 std::unordered_map<unsigned long, unsigned long>* dcidRefs,
                                 BloomFilter* bloom) {
  if (bloom == nullptr) {
    return;
  }
  bloom->Insert(entry->fp);
  (*dcidRefs)[entry->dcid] += BytesOf(key, entry->startOffset);
}

int CMappingLMDB::GetDCIDAndFPs(std::unordered_map<unsigned long, unsigned long>* dcids,
                                std::vector<crfp_digest_t>* fps) {
  const SharedLock lock(tableLock_);
  std::unordered_map<long, std::pair<long, unsigned long>> extents;
  if (tmpDb_.opened) {
    ConstructRefTable(tmpDb_, &extents, fps);
  }
  ConstructRefTable(smallDb_, &extents, fps);
  ConstructRefTable(fullDb_, &extents, fps);
  for (const auto& [key, startAndDcid] : extents) {
    (*dcids)[startAndDcid.second] += BytesOf(key, startAndDcid.first);
  }
  ZEFS_LOG(kLogTrace, "%s, dcid_refs:%lu, fps: %lu", "GetDCIDAndFPs",
           static_cast<unsigned long>(dcids->size()), static_cast<unsigned long>(fps->size()));
  return 0;
}

bool CMappingLMDB::LoadBloom(std::unique_ptr<BloomFilter>* bloom,
                             std::unordered_map<unsigned long, unsigned long>* refs) {
  const std::string path = PathOf(BLOOM_FILE);
  BloomPersist file(path, true);
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0 ||
      FileSystemDaemonConfig::GetInstance().Get(&FileSystemDaemonConfig::persistBloom) == 0 ||
      file.Reset(noMmap_) != 0) {
    return false;
  }
  try {
    if (file.ReadBloom(bloom, refs) == 0) {
      return true;
    }
    const int removed = ::unlink(path.c_str());
    ZEFS_LOG(kLogStep, "remove file %s, return is %d; errno is %d", path.c_str(), removed, errno);
  } catch (const std::exception& e) {
    ZEFS_LOG(kLogRecoverable,
             "Cannot load bloom from: %s, errno:%d, msg:%s, generate bloom from table",
             path.c_str(), errno, e.what());
  }
  refs->clear();  // the part that there was memory for would be counted once more
  return false;
}

void CMappingLMDB::GetDCIDAndBloomFilter(
    std::vector<std::pair<unsigned long, unsigned long>>* dcids,
    std::unique_ptr<BloomFilter>* filter) {
  ZEFS_MEASURE_CPU(mapping_lmdb_cpu_counters);
  dcids->clear();
  std::unordered_map<unsigned long, unsigned long> refs;
  unsigned long dbSize = 0;
  unsigned long fromFile = 0;
  unsigned long tmpCount = 0;
  const SharedLock lock(tableLock_);
  const bool rebuild = !LoadBloom(filter, &refs);
  if (rebuild) {
    dbSize = static_cast<unsigned long>(DbSizeUnlocked());
    *filter = std::make_unique<BloomFilter>(dbSize * 2, kFalsePositiveRate);
  } else {
    fromFile = (*filter)->GetInsertedFingerPrints();
  }
  if (tmpDb_.opened) {
    ConstructRefTable(tmpDb_, &refs, filter->get());
    tmpCount = (*filter)->GetInsertedFingerPrints() - fromFile;
  }
  ConstructRefTable(smallDb_, &refs, filter->get());
  unsigned long l0Count = (*filter)->GetInsertedFingerPrints() - fromFile - tmpCount;
  if (rebuild) {
    ConstructRefTable(fullDb_, &refs, filter->get());
    fromFile = (*filter)->GetInsertedFingerPrints();
    l0Count = (*filter)->GetInsertedFingerPrints() - fromFile - tmpCount;
  }
  if (refs.size() >= kTooManyContainers) {
    throw std::length_error("vector::reserve");
  }
  dcids->reserve(refs.size());
  for (const auto& [dcid, bytes] : refs) {
    if (dcid < kFirstDcid) {
      ZEFS_LOG(kLogRecoverable, "The dcid is invalid, dcid=%lld", static_cast<long long>(dcid));
      continue;
    }
    dcids->emplace_back(dcid, bytes);
  }
  dataChanged_ = false;
  ZEFS_LOG(
      kLogTrace, "dcid:%lld, bufsize: %lld, fpall: %lld, fulldb:%lld, l0:%lld, tmp:%lld",
      static_cast<long long>(dcids->size()), static_cast<long long>((*filter)->GetBufferSize()),
      static_cast<long long>((*filter)->GetInsertedFingerPrints()), static_cast<long long>(dbSize),
      static_cast<long long>(l0Count), static_cast<long long>(tmpCount));
}

}  // namespace Aldenta::Qnd::Morene::Zefs
