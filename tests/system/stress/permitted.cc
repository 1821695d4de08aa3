#include "tests/system/stress/permitted.h"

#include <stdexcept>

namespace zefs::test::stress {

namespace {

constexpr bool kReads = false;
constexpr bool kChanges = true;

Use Read(Thing thing, By by) {
  return {thing, kReads, by, false};
}
Use Change(Thing thing, By by, bool exclusively = true) {
  return {thing, kChanges, by, exclusively};
}

/// No other call may be running.
const Use kAlone = Change(Thing::kWhole, By::kNothing);
/// The object is there meanwhile.
const Use kThere = Read(Thing::kWhole, By::kNothing);

std::vector<Use> Alone() {
  return {kAlone};
}
std::vector<Use> With(std::vector<Use> uses) {
  uses.push_back(kThere);
  return uses;
}

/// Whatever walks the databases.
const Use kOpen = Read(Thing::kDatabases, By::kTableLock);
const Use kReadStored = Read(Thing::kStored, By::kTransaction);
const Use kWriteStored = Change(Thing::kStored, By::kTransaction);
/// The name of the directory is in what fails to be opened.
const Use kPathUnderLock = Read(Thing::kPath, By::kTableLock);
/// A merge that is started reads the name before it takes the lock.
const Use kPathOfMerge = Read(Thing::kPath, By::kNothing);
/// The switch of a merge undoes what was written into the full database meanwhile.
const Use kMayMerge = Read(Thing::kMergeInput, By::kNothing);

const std::vector<Use> kLookUp =
    With({Read(Thing::kCache, By::kRwLock), Read(Thing::kPrefetched, By::kPrefetchLock), kOpen,
          kReadStored, kPathUnderLock});
const std::vector<Use> kInsert =
    With({Change(Thing::kCache, By::kRwLock), Change(Thing::kPrefetched, By::kPrefetchLock),
          Change(Thing::kSizes, By::kRwLock), Change(Thing::kChanged, By::kRwLock)});
const std::vector<Use> kFlush =
    With({Change(Thing::kCache, By::kRwLock), Change(Thing::kPrefetched, By::kPrefetchLock),
          Change(Thing::kSizes, By::kRwLock), Change(Thing::kChanged, By::kRwLock),
          Change(Thing::kObjectId, By::kRwLock), Change(Thing::kSideFiles, By::kOwnLock), kOpen,
          kWriteStored, kPathOfMerge, kMayMerge});
const std::vector<Use> kCount = With({kOpen, kReadStored, kPathUnderLock});
const std::vector<Use> kFlagRead = With({Read(Thing::kCommitFlag, By::kNothing)});
const std::vector<Use> kNothing = With({});

}  // namespace

const std::vector<Operation>& StoredOperations() {
  static const std::vector<Operation> operations{
      {"~", Alone()},
      {"insert", kInsert},
      {"append", kInsert},
      {"setFileSize",
       With({Change(Thing::kSizes, By::kNothing), Change(Thing::kChanged, By::kNothing),
             Change(Thing::kObjectId, By::kNothing), kOpen, kWriteStored, kPathUnderLock})},
      {"truncate", Alone()},
      {"getFileSize", With({Read(Thing::kSizes, By::kEither)})},
      {"begin", kLookUp},
      {"end", kNothing},
      {"find", kLookUp},
      {"size", kCount},
      {"getTableSize", kCount},
      {"lower_bound", kLookUp},
      {"lower_bound_in_cache", With({Read(Thing::kCache, By::kRwLock)})},
      {"needCommit", kFlagRead},
      {"setCommit", With({Change(Thing::kCommitFlag, By::kNothing)})},
      {"load", Alone()},
      {"UpdateExtPath",
       With({Change(Thing::kPath, By::kTableLock), Change(Thing::kDatabases, By::kTableLock),
             Change(Thing::kSideFiles, By::kOwnLock)})},
      {"save", kNothing},
      {"remove", Alone()},
      // Only for a caller that checkAndBackfillObjectID has left rwLock_ to.
      {"checkAndBackfillObjectIDUnlock", kFlush},
      {"checkAndBackfillObjectID", kFlush},
      // Waits for a merge, and nothing may start one, or store anything, until it is through.
      {"Snapshot", With({Read(Thing::kStored, By::kNothing),
                         Change(Thing::kMergeInput, By::kNothing), kPathOfMerge})},
      {"SetObjectID", kNothing},
      {"GetObjectIdsAndOffsets", With({kOpen, kReadStored, kPathOfMerge, kMayMerge})},
      {"UpdateObjectIdsByRange",
       With({Change(Thing::kPrefetched, By::kPrefetchLock), kOpen, kWriteStored,
             Change(Thing::kMergeInput, By::kTransaction), kPathUnderLock})},
      {"GetNewReferencedDCID", kNothing},
      {"GetReferencedFP", kNothing},
      {"GetDCIDAndFP", With({Read(Thing::kReferences, By::kTableLock)})},
      {"GetDCIDAndFPs", kCount},
      // A change that is made meanwhile might not count as one: the flag is cleared at the end.
      {"GetDCIDAndBloomFilter",
       With({kOpen, kReadStored, kPathUnderLock, Change(Thing::kChanged, By::kNothing)})},
      {"SetDOID", With({Change(Thing::kObjectId, By::kTableLock, false), kOpen, kWriteStored,
                        kPathUnderLock})},
      {"GetDOID", With({Read(Thing::kObjectId, By::kTableLock)})},
      {"IsDataChanged",
       With({Read(Thing::kObjectId, By::kNothing), Read(Thing::kChanged, By::kNothing)})},
      {"GetWritingNodesCount", kNothing},
      {"GetWritingNodes", With({Read(Thing::kCache, By::kNothing)})},
      {"GetDCInfoList",
       With({Read(Thing::kCache, By::kRwLock), Change(Thing::kPrefetched, By::kPrefetchLock), kOpen,
             kReadStored, kPathUnderLock})},
      {"GetEmptyDcOffsetList", With({Change(Thing::kSideFiles, By::kOwnLock)})},
      {"BackfillDcOffset",
       With({Change(Thing::kCache, By::kRwLock), Change(Thing::kPrefetched, By::kPrefetchLock),
             Change(Thing::kSizes, By::kRwLock), Change(Thing::kChanged, By::kRwLock),
             Change(Thing::kSideFiles, By::kOwnLock), kOpen, kReadStored, kPathUnderLock})},
      {"AppendToRefreshDcOffsetList", With({Change(Thing::kSideFiles, By::kOwnLock)})},
      // It leaves look-ups extents without the nodes that they hold.
      {"GetExtentData", With({Change(Thing::kCache, By::kTableLock, false)})},
      {"setExtMapVersion",
       With({Change(Thing::kSizes, By::kNothing), kOpen, kWriteStored, kPathUnderLock})},
      {"getExtMapVersion", With({Read(Thing::kSizes, By::kEither)})},
  };
  return operations;
}

const std::vector<Operation>& TreeOperations() {
  static const Use read = Read(Thing::kTree, By::kTableLock);
  static const Use references = Read(Thing::kReferences, By::kTableLock);
  static const std::vector<Use> unlocked =
      With({Read(Thing::kTree, By::kNothing), Read(Thing::kPlaces, By::kNothing)});
  static const std::vector<Use> change =
      With({Change(Thing::kTree, By::kTableLock), Change(Thing::kPlaces, By::kTableLock),
            Change(Thing::kReferences, By::kTableLock)});
  static const std::vector<Use> inPlace =
      With({Change(Thing::kTree, By::kTableLock), Change(Thing::kReferences, By::kTableLock)});
  static const std::vector<Operation> operations{
      {"~", Alone()},
      {"insert", change},
      {"append", change},
      {"setFileSize", kNothing},
      {"truncate", change},
      {"getFileSize", kNothing},
      {"begin", unlocked},
      {"end", kNothing},
      {"find", With({read})},
      {"size", unlocked},
      {"getTableSize", With({read})},
      {"lower_bound", unlocked},
      {"lower_bound_in_cache", unlocked},
      {"needCommit", kFlagRead},
      {"setCommit", With({Change(Thing::kCommitFlag, By::kNothing)})},
      {"load", kNothing},
      {"UpdateExtPath", kNothing},
      {"save", kNothing},
      {"remove", kNothing},
      {"checkAndBackfillObjectIDUnlock", kNothing},
      {"checkAndBackfillObjectID", kNothing},
      {"Snapshot", kNothing},
      // The extent that it is given must stay where it is.
      {"SetObjectID",
       With({Change(Thing::kTree, By::kTableLock), Read(Thing::kPlaces, By::kNothing),
             Change(Thing::kReferences, By::kTableLock)})},
      {"GetObjectIdsAndOffsets", unlocked},
      {"UpdateObjectIdsByRange", inPlace},
      {"GetNewReferencedDCID", With({references})},
      {"GetReferencedFP", With({references})},
      {"GetDCIDAndFP", With({references})},
      {"GetDCIDAndFPs", kNothing},
      {"GetDCIDAndBloomFilter", kNothing},
      {"SetDOID", kNothing},
      {"GetDOID", kNothing},
      {"IsDataChanged", kNothing},
      {"GetWritingNodesCount", kNothing},
      {"GetWritingNodes", With({Read(Thing::kCache, By::kTableLock)})},
      {"GetDCInfoList", kNothing},
      {"GetEmptyDcOffsetList", kNothing},
      {"BackfillDcOffset", kNothing},
      {"AppendToRefreshDcOffsetList", kNothing},
  };
  return operations;
}

namespace {

std::string NameOf(Thing thing) {
  switch (thing) {
    case Thing::kWhole:
      return "the whole table";
    case Thing::kCache:
      return "the cache";
    case Thing::kPrefetched:
      return "the prefetched extents";
    case Thing::kDatabases:
      return "the set of databases";
    case Thing::kStored:
      return "what is stored";
    case Thing::kMergeInput:
      return "what a merge reads";
    case Thing::kSizes:
      return "the file sizes";
    case Thing::kPath:
      return "the path";
    case Thing::kObjectId:
      return "the table's object id";
    case Thing::kChanged:
      return "the note of changes";
    case Thing::kReferences:
      return "the references";
    case Thing::kCommitFlag:
      return "the commit flag";
    case Thing::kSideFiles:
      return "the side files";
    case Thing::kTree:
      return "the tree";
    case Thing::kPlaces:
      return "the places of extents";
  }
  return "?";
}

std::string NameOf(By by) {
  switch (by) {
    case By::kNothing:
      return "nothing";
    case By::kRwLock:
      return "rwLock_";
    case By::kTableLock:
      return "tableLock_";
    case By::kPrefetchLock:
      return "prefetchLock_";
    case By::kTransaction:
      return "transactions";
    case By::kOwnLock:
      return "a lock of its own";
    case By::kEither:
      return "either value";
  }
  return "?";
}

Verdict Judge(const Use& one, const Use& other) {
  if (!one.changes && !other.changes) {
    return {true, ""};
  }
  // A reader that takes either value goes with any writer.
  if ((one.by == By::kEither && !one.changes) || (other.by == By::kEither && !other.changes)) {
    return {true, NameOf(one.thing) + ": either value"};
  }
  const bool excluded = one.by == other.by && one.by != By::kNothing &&
                        (one.changes ? one.exclusively : true) &&
                        (other.changes ? other.exclusively : true);
  if (excluded) {
    return {true, NameOf(one.thing) + ": " + NameOf(one.by)};
  }
  return {false, NameOf(one.thing) + ": " + NameOf(one.by) + " against " + NameOf(other.by)};
}

}  // namespace

Verdict MayRunTogether(const Operation& one, const Operation& other) {
  Verdict verdict{true, ""};
  for (const Use& a : one.uses) {
    for (const Use& b : other.uses) {
      if (a.thing != b.thing) {
        continue;
      }
      Verdict found = Judge(a, b);
      if (!found.permitted) {
        return found;
      }
      if (!found.reason.empty()) {
        verdict.reason += (verdict.reason.empty() ? "" : "; ") + found.reason;
      }
    }
  }
  if (verdict.reason.empty()) {
    verdict.reason = "neither changes what the other touches";
  }
  return verdict;
}

const Operation& Find(const std::vector<Operation>& operations, const std::string& name) {
  for (const Operation& operation : operations) {
    if (operation.name == name) {
      return operation;
    }
  }
  throw std::out_of_range("no operation " + name);
}

}  // namespace zefs::test::stress
