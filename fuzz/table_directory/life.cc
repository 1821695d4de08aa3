#include "fuzz/table_directory/life.h"

#include <algorithm>
#include <exception>
#include <functional>
#include <limits>
#include <list>
#include <new>
#include <random>
#include <set>
#include <stdexcept>
#include <unordered_map>

#include <boost/filesystem/operations.hpp>

#include "fuzz/fuzz_support.h"
#include "host/config.h"
#include "persistent/mapping_lmdb.h"
#include "refhost/host/log_recorder.h"
#include "refhost/store/no_data_cache.h"
#include "table/sys_exception.h"
#include "tests/sidefiles/allocation_limit.h"

namespace zefs::fuzz {

namespace {

namespace fs = boost::filesystem;
using Aldenta::Qnd::Morene::Zefs::CMappingLMDB;
using Aldenta::Qnd::Morene::Zefs::CMappingTable;
using Aldenta::Qnd::Morene::Zefs::ObjectID;
using Aldenta::Qnd::Morene::Zefs::SysException;

constexpr long kLast = std::numeric_limits<long>::max();
constexpr long kFirst = std::numeric_limits<long>::min();
constexpr std::size_t kMostSteps = 500000;             // more than records fit into an input
constexpr std::size_t kLargestAllocation = 64U << 20;  // likewise
constexpr std::uintmax_t kLargestCopied = 16U << 20;   // bytes of a file, for a snapshot

/// One table from its load to its end.
class Life {
 public:
  Life(const LifePlan& plan, std::string directory)
      : plan_(plan), directory_(std::move(directory)), limit_(kLargestAllocation) {
    Set(&FileSystemDaemonConfig::bigTableMapSizeGiB, 1U);
    Set(&FileSystemDaemonConfig::batchUpdateThreshold, 1U);
    Set(&FileSystemDaemonConfig::mergeWaitEntriesThreshold, 1000U);
    Set(&FileSystemDaemonConfig::mergeCommitBatchSize, plan.SmallBatches() ? 3U : 1000U);
    Set(&FileSystemDaemonConfig::persistBloom, static_cast<std::uint8_t>(plan.PersistBloom()));
    Set(&FileSystemDaemonConfig::prefetchEnabled, static_cast<std::int32_t>(plan.Prefetch()));
    Set(&FileSystemDaemonConfig::dcOffsetTrackingEnabled, true);
  }

  LifeResult Run() {
    table_ = std::make_unique<CMappingLMDB>(&cache_, plan_.TableType());
    result_.load = Try([&] {
      const int code = table_->load(directory_, false, "");
      return code == 0 ? std::string() : "load gives " + std::to_string(code);
    });
    const bool loaded = result_.load.empty() || result_.load.compare(0, 10, "load gives") == 0;
    if (result_.load.empty()) {
      result_.load = "loaded";
    }
    if (loaded) {
      UseInSomeOrder();
    }
    table_.reset();
    return result_;
  }

 private:
  template <typename T>
  static void Set(T FileSystemDaemonConfig::*field, T value) {
    FileSystemDaemonConfig::GetInstance().Set(field, value);
  }

  /// What `operation` says, or how it has failed.
  static std::string Try(const std::function<std::string()>& operation) {
    try {
      return operation();
    } catch (const SysException& e) {
      return "SysException " + std::to_string(e.code);
    } catch (const fs::filesystem_error& e) {
      return "filesystem_error " + std::to_string(e.code().value());
    } catch (const std::bad_alloc&) {
      Require(false, "an allocation out of all proportion");
    } catch (const std::length_error&) {
      Require(false, "a length out of all proportion");
    } catch (const std::exception& e) {
      return std::string("exception ") + e.what();
    } catch (int) {  // what two operations of this table throw
      return "int";
    }
    return "";
  }

  void UseInSomeOrder() {
    std::vector<std::function<void()>> uses = {
        [this] { Walk(); },       [this] { LookUp(); },      [this] { Plan(); },
        [this] { References(); }, [this] { BloomFilter(); }, [this] { Sizes(); },
        [this] { List(); },       [this] { Rewrite(); },     [this] { Flush(); },
        [this] { Backfill(); },   [this] { Merge(); },       [this] { Truncate(); },
        [this] { Snapshot(); },   [this] { OwnId(); },       [this] { Flush(); },
    };
    std::mt19937_64 random(plan_.order);
    std::shuffle(uses.begin(), uses.end(), random);
    for (const auto& use : uses) {
      const std::string failure = Try([&] {
        use();
        return std::string();
      });
      result_.failures += static_cast<unsigned>(!failure.empty());
      log_.Take();
    }
  }

  void Walk() {
    std::size_t steps = 0;
    const auto end = table_->end();
    for (auto at = table_->begin(); at != end; ++at) {
      Require(++steps < kMostSteps, "a walk has no end");
    }
  }
  void LookUp() {
    for (const long offset : {0L, 1L, 4095L, 4096L, 1L << 20, 1L << 40, kLast - 1, kLast, -1L,
                              kFirst, kFirst + 1, kFirst + 4}) {
      table_->lower_bound(offset, nullptr);
      table_->lower_bound_in_cache(offset, nullptr);
    }
  }
  void Plan() {
    for (const auto& range :
         {CMappingTable::PrefetchRange{0, kLast, 1}, CMappingTable::PrefetchRange{4096, 20000, 2},
          CMappingTable::PrefetchRange{kFirst, 1 << 20, 3}}) {
      std::list<CMappingTable::DCInfo> plan;
      table_->GetDCInfoList(range, &plan);
    }
  }
  void References() {
    std::unordered_map<unsigned long, unsigned long> dcids;
    std::vector<crfp_digest_t> fps;
    table_->GetDCIDAndFPs(&dcids, &fps);
  }
  void BloomFilter() {
    std::vector<std::pair<unsigned long, unsigned long>> dcids;
    std::unique_ptr<::BloomFilter> filter;
    table_->GetDCIDAndBloomFilter(&dcids, &filter);
  }
  void Sizes() {
    table_->size();
    table_->getFileSize();
    table_->setFileSize(table_->getFileSize() / 2 + 12345);
    table_->setExtMapVersion(table_->getExtMapVersion());
  }
  void List() { table_->GetObjectIdsAndOffsets(1, static_cast<unsigned long>(kLast)); }
  void Rewrite() {
    CMappingTable::ObjectIDs ids =
        table_->GetObjectIdsAndOffsets(1, static_cast<unsigned long>(kLast));
    for (auto& id : ids) {
      ++id.objectID.dcid;
    }
    table_->UpdateObjectIdsByRange(1, static_cast<unsigned long>(kLast), ids);
  }
  void Flush() {
    ObjectID oid;
    oid.dcid = 77;
    oid.fp.fill(0x77);
    for (const long start : {0L, 6000L, 50000L, (1L << 40) + flushes_ * 8192}) {
      table_->insert(start, start + 5000, &oid, 100, 0, nullptr, flushes_ % 2 == 0 ? -1 : 9,
                     nullptr);
    }
    ++flushes_;
    if (flushes_ % 2 == 0) {
      std::set<void*> released;
      table_->checkAndBackfillObjectID(&released, true, "", "", nullptr, nullptr);
    } else {
      table_->checkAndBackfillObjectIDUnlock(false);  // the journal lives on
    }
  }
  void Backfill() {
    std::vector<zefs::DCOffset> wanted;
    table_->GetEmptyDcOffsetList(&wanted);
    zefs::DCOffset first;
    const auto found = table_->begin();
    if (found != table_->end()) {
      first.key = found->sOff;
      first.dcid = found->objectID.dcid;
      first.fp = found->objectID.fp;
      wanted.push_back(first);
    }
    for (zefs::DCOffset& offset : wanted) {
      offset.dcOffset = 5;
    }
    table_->BackfillDcOffset(wanted);
  }
  void Merge() { table_->GetObjectIdsAndOffsets(0, static_cast<unsigned long>(kLast)); }
  void Truncate() { table_->truncate(30000, nullptr); }
  void Snapshot() {
    for (const char* name : {"/lsml0.mdb", "/data.mdb"}) {
      boost::system::error_code error;
      const std::uintmax_t size = fs::file_size(directory_ + name, error);
      if (error || size > kLargestCopied) {
        return;
      }
    }
    table_->Snapshot(directory_, directory_ + "-copy");
  }
  void OwnId() {
    ObjectID oid;
    if (table_->GetDOID(&oid) != 0) {
      oid.dcid = 99;
      oid.fp.fill(0x99);
    }
    table_->SetDOID(&oid);
    table_->IsDataChanged();
  }

  LifePlan plan_;
  std::string directory_;
  refhost::LogRecorder log_;  // every line is made, as a host might want it
  const zefs::test::AllocationLimit limit_;
  refhost::NoDataCache cache_;
  std::unique_ptr<CMappingLMDB> table_;
  LifeResult result_;
  long flushes_ = 0;
};

}  // namespace

LifeResult Live(const LifePlan& plan, const std::string& directory) {
  return Life(plan, directory).Run();
}

}  // namespace zefs::fuzz
