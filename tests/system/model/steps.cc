#include "tests/system/model/steps.h"

#include <unistd.h>

namespace zefs::test {

void Steps::Fail(const std::string& what) {
  throw DifferenceFound(what);
}

void Steps::Expect(bool same, const std::string& what) {
  ++compares_;
  if (!same) {
    Fail(what);
  }
}

void Steps::Begin() {
  LoadStored();
}

void Steps::End() {
  model_.Unload();
  if (live()) {
    tables_->stored.reset();
    tables_->memory.reset();
  }
}

bool Steps::Take(const Operation& operation) {
  const bool goesOn = Goes(operation);
  if (goesOn && model_.TakeRebuilt() && live()) {
    Rebuild();
  }
  if (live()) {
    if (goesOn) {
      LookUpAt(operation.at);
    }
    tally_.operations += 1;
    tally_.byKind.at(static_cast<std::size_t>(operation.kind)) += 1;
    tally_.compares += std::exchange(compares_, 0);
  }
  return goesOn;
}

bool Steps::Goes(const Operation& operation) {
  switch (operation.kind) {
    case Kind::kInsertNode:
    case Kind::kInsertKnown:
    case Kind::kInsertBoth:
    case Kind::kInsertNothing:
    case Kind::kInsertEmpty:
      return Insert(operation), true;
    case Kind::kAppend:
      return Append(operation), true;
    case Kind::kUpdate:
      return Update(operation), true;
    case Kind::kTruncate:
      return Truncate(operation.at), true;
    case Kind::kSetFileSize:
      return SetFileSize(operation.at), true;
    case Kind::kMakeReady:
    case Kind::kMakeAllReady:
      return MakeReady(operation), true;
    case Kind::kFind:
    case Kind::kLowerBound:
    case Kind::kFindCached:
      return LookUp(operation), true;
    case Kind::kWalk:
      return Walk(operation), true;
    case Kind::kWalkBack:
      return WalkBack(operation), true;
    case Kind::kSizes:
      return Sizes(), true;
    case Kind::kPlan:
      return MakePlan(operation), true;
    case Kind::kSetObjectId:
      return SetObjectId(operation), true;
    case Kind::kListIds:
      return ListIds(operation), true;
    case Kind::kRewriteIds:
      return RewriteIds(operation), true;
    case Kind::kReferences:
      return MemoryReferences(), true;
    case Kind::kBinaryReferences:
      return StoredReferences(), true;
    case Kind::kFilter:
      return Filter(), true;
    case Kind::kSetDoid:
      return SetDoid(operation), true;
    case Kind::kGetDoid:
      return GetDoid(), true;
    case Kind::kIsChanged:
      return IsChanged(), true;
    case Kind::kWritingNodes:
      return WritingNodes(operation), true;
    case Kind::kBackfill:
      return Backfill(operation), true;
    case Kind::kRefreshOffset:
      return RefreshOffset(operation), true;
    case Kind::kFlush:
    case Kind::kForcedFlush:
    case Kind::kRefusedFlush:
    case Kind::kFlushOverFailed:
      return Flush(operation), true;
    case Kind::kFlushUnlocked:
      return FlushUnlocked(operation), true;
    case Kind::kForgetNodes:
      return ForgetNodes(), true;
    case Kind::kMerge:
    case Kind::kFailedMerge:
      return Merge(operation), true;
    case Kind::kCommitFlag:
      return CommitFlag(operation), true;
    case Kind::kSave:
      return Save(), true;
    case Kind::kSetVersion:
      return SetVersion(operation), true;
    case Kind::kSnapshot:
      return Snapshot(), true;
    case Kind::kMove:
      return Move(), true;
    case Kind::kRemove:
      return Remove();
    case Kind::kReload:
      return Reload();
    case Kind::kKill:
    case Kind::kCrash:
      return true;  // of the process, which is not the table's to know
  }
  return true;
}

}  // namespace zefs::test
