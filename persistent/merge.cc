#include <cerrno>
#include <optional>
#include <unistd.h>

#include "host/config.h"
#include "host/zefs_log.h"
#include "persistent/mapping_lmdb.h"
#include "persistent/merge_walk.h"
#include "persistent/printed.h"
#include "persistent/seek.h"
#include "persistent/transaction.h"
#include "sidefiles/bloom_persist.h"

// The walk of a merge: the union of the full and the small database, written in key order to a new
// one, with the references counted on the way.

namespace Aldenta::Qnd::Morene::Zefs {

using zefs::kLogFailure;
using zefs::kLogStep;
using zefs::kLogTrace;

namespace {

constexpr double kFalsePositiveRate = 0.02;

/// One of the two databases that are merged, from its first extent on.
class MergeSource {
 public:
  MergeSource(const LMDBContext& db, const std::string& tablePath)
      : transaction_(db, Transaction::kReadOnly, tablePath) {}

  /// Positions on the first extent; the special items lie before it.
  void Begin() { Take(SeekRecord(transaction_.cursor(), 0, &key_, &value_)); }
  void Next() { Take(NextRecord(transaction_.cursor(), record_.end, &key_, &value_)); }

  int result() const { return ret_; }
  const MergeRecord& record() const { return record_; }
  const ExtLMDBEntry& entry() const { return entry_; }
  MDB_val value() const { return value_; }

 private:
  void Take(int ret) {
    ret_ = ret;
    record_.there = ret_ == 0;
    if (record_.there) {
      entry_ = ReadRecord(value_);
      record_.start = entry_.startOffset;
      record_.end = ReadKey(key_);
    }
  }

  Transaction transaction_;
  int ret_ = MDB_NOTFOUND;
  MDB_val key_{};
  MDB_val value_{};
  MergeRecord record_;
  ExtLMDBEntry entry_{};
};

/// What the log says of a failed put depends on what there was left to merge.
void LogFailedPut(const MergeStep& step, bool bothThere, int ret) {
  if (bothThere && step.source == MergeStep::kFull) {
    ZEFS_LOG(kLogFailure, "Failed to put cursor for merge db, return value is %d", ret);
  } else if (bothThere) {
    ZEFS_LOG(kLogFailure,
             "Failed to put cursor for merge db for extent from incremental db, return value is %d",
             ret);
  } else if (step.source == MergeStep::kFull) {
    ZEFS_LOG(kLogFailure,
             "Failed to put cursor for merge db for extents only from full db, return value is %d",
             ret);
  } else {
    ZEFS_LOG(kLogFailure,
             "Failed to put cursor for merge db for extents only from incremental db, return value "
             "is %d",
             ret);
  }
}

void LogCuts(const MergeStep& step, const MergeRecord& record) {
  if (step.start != record.start) {
    ZEFS_LOG(kLogTrace, "Modify StartOff %lld to %lld", Printed(record.start), Printed(step.start));
  }
  if (step.end != record.end) {
    ZEFS_LOG(kLogTrace, "Modify EndOff %lld to %lld", Printed(record.end), Printed(step.end));
  }
}

bool IsFailure(int ret) {
  return ret != 0 && ret != MDB_NOTFOUND;
}

}  // namespace

int CMappingLMDB::MergeDBs(const LMDBContext& full, const LMDBContext& incremental,
                           const LMDBContext& merged, bool withBloom) {
  ZEFS_LOG(kLogTrace, "CMappingLMDB::mergeDBs()");
  newDcidRefs_.clear();  // of a merge that failed
  std::unique_ptr<BloomFilter> bloom;
  if (withBloom) {
    const unsigned long headroom = FileSystemDaemonConfig::GetInstance().Get(
        &FileSystemDaemonConfig::mergeWaitEntriesThreshold);
    bloom = std::make_unique<BloomFilter>((static_cast<unsigned long>(size()) + headroom) * 2,
                                          kFalsePositiveRate);
  }
  WriteUnion(full, incremental, merged, bloom.get());
  if (withBloom) {
    StoreMergedBloom(bloom.get());
  }
  return 0;
}

void CMappingLMDB::WriteUnion(const LMDBContext& full, const LMDBContext& incremental,
                              const LMDBContext& merged, BloomFilter* bloom) {
  const std::uint32_t batch =
      FileSystemDaemonConfig::GetInstance().Get(&FileSystemDaemonConfig::mergeCommitBatchSize);
  std::optional<MergeSource> older(std::in_place, full, path_);
  std::optional<MergeSource> newer(std::in_place, incremental, path_);
  std::optional<Transaction> output(std::in_place, merged, Transaction::kWrite, path_);
  older->Begin();
  newer->Begin();
  std::int64_t lastEnd = 0;
  std::uint32_t count = 0;
  while (older->record().there || newer->record().there) {
    if (IsFailure(older->result()) || IsFailure(newer->result())) {
      break;
    }
    const MergeStep step = NextMergeStep(older->record(), newer->record(), lastEnd);
    if (step.source != MergeStep::kNothing) {
      const bool bothThere = older->record().there && newer->record().there;
      const MergeSource& source = step.source == MergeStep::kFull ? *older : *newer;
      if (bothThere) {
        LogCuts(step, source.record());
      }
      const int ret =
          PutMerged(source.record(), source.entry(), source.value(), step, *output, bloom);
      if (ret != 0) {
        LogFailedPut(step, bothThere, ret);
        throw SysException(ret);
      }
      ++count;
    }
    lastEnd = step.lastEnd;
    if (step.advanceFull) {
      older->Next();
    }
    if (step.advanceIncremental) {
      newer->Next();
    }
    if (count >= batch) {
      output->CloseCursor();
      const int ret = output->Commit();
      if (ret != 0) {
        ZEFS_LOG(kLogFailure, "Failed to put cursor for merge db, return value is %d", ret);
        throw SysException(ret);
      }
      count = 0;
      output.emplace(merged, Transaction::kWrite, path_);
    }
  }
  if (IsFailure(older->result()) || IsFailure(newer->result())) {
    ZEFS_LOG(kLogFailure, "Failed to get cursor for merge db, return value is %d and %d",
             older->result(), newer->result());
    throw SysException(IsFailure(older->result()) ? older->result() : newer->result());
  }
  older.reset();
  newer.reset();
  RaiseMergedSize(lastEnd);
  PutMergedSpecialItems(&*output);
}

int CMappingLMDB::PutMerged(const MergeRecord& record, const ExtLMDBEntry& entry, MDB_val value,
                            const MergeStep& step, const Transaction& output, BloomFilter* bloom) {
  RecordKey recordKey(step.end);
  MDB_val key = recordKey.Val();
  if (step.start == record.start && step.end == record.end) {
    ConstructRefs(step.end, &entry, &newDcidRefs_, bloom);
    return mdb_cursor_put(output.cursor(), &key, &value, MDB_APPEND);  // as long as it was
  }
  ExtLMDBEntry cut = entry;
  cut.startOffset = step.start;
  cut.ModifyObjectOffset(static_cast<long>(static_cast<std::uint64_t>(step.start) -
                                           static_cast<std::uint64_t>(record.start)));
  ConstructRefs(step.end, &cut, &newDcidRefs_, bloom);
  MDB_val cutValue = RecordVal(cut);
  return mdb_cursor_put(output.cursor(), &key, &cutValue, MDB_APPEND);
}

void CMappingLMDB::PutMergedSpecialItems(Transaction* output) {
  const ObjectID doid = OwnId();
  const auto check = [output](int ret, auto log) {
    if (ret != 0) {
      output->Abort();
      log(ret);
      throw SysException(ret);
    }
  };
  check(output->Put(SPECIAL_KEY_FILE_SIZE, SpecialValue::OfNumber(StoredSize())), [](int ret) {
    ZEFS_LOG(kLogFailure, "Failed to put filesize for merge db, return value is %d", ret);
  });
  check(output->Put(SPECIAL_KEY_COMMIT_COUNTER, SpecialValue::OfNumber(0)), [](int ret) {
    ZEFS_LOG(kLogFailure, "Failed to put table commit counter for merge db, return value is %d",
             ret);
  });
  check(output->Put(SPECIAL_KEY_DOID, SpecialValue::OfObjectID(doid)), [](int ret) {
    ZEFS_LOG(kLogFailure, "Failed to put do ID for merge db, return value is %d", ret);
  });
  SetVersion(kCurrentVersion);
  check(output->Put(SPECIAL_KEY_LMDB_VERSION, SpecialValue::OfVersion(kCurrentVersion)),
        [](int ret) {
          ZEFS_LOG(kLogFailure, "Failed to put filesize for merge db, return value is %d", ret);
        });
  output->CloseCursor();
  const int ret = output->Commit();
  if (ret != 0) {
    throw SysException(ret);
  }
}

void CMappingLMDB::StoreMergedBloom(BloomFilter* bloom) {
  const std::string path = PathOf(BLOOM_MERGE_FILE);
  BloomPersist file(path, false);
  const int removed = ::unlink(path.c_str());
  const int error = errno;
  ZEFS_LOG(kLogStep, "remove file %s, return is %d; errno is %d", path.c_str(), removed, error);
  if (removed != 0 && error != ENOENT) {
    // The file is appended to, and only what comes first in it is read: not an older filter.
    [[maybe_unused]] const int emptied = ::truncate(path.c_str(), 0);
  }
  try {
    file.Reset(noMmap_);  // a failure shows in the next line
    const int ret = file.StoreBloom(bloom, &newDcidRefs_);
    if (ret != 0) {
      ZEFS_LOG(kLogFailure, "Failed to store the bloom in file %s, err:%d", path.c_str(), ret);
    }
  } catch (...) {
    ZEFS_LOG(kLogFailure, "Failed to store the bloom in file %s", path.c_str());
  }
  file.CheckAndClose();
  newDcidRefs_.clear();
}

}  // namespace Aldenta::Qnd::Morene::Zefs
