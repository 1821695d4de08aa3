#include "refhost/gc/catch_up.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <optional>
#include <set>
#include <string>
#include <unistd.h>
#include <vector>

#include "host/config.h"
#include "refhost/gc/table_references.h"
#include "refhost/store/store_error.h"
#include "table/extent.h"

namespace zefs::refhost {

namespace {

using KeptReferences = DurableStore::Still::KeptReferences;

constexpr std::uint32_t kFewRecords = 1024;
constexpr std::int64_t kGivenUp = -2;  // as the table has it: an offset that nobody can tell

/// An extent that is not where the index has its object.
struct Stray {
  DataCacheNode::ObjectID_With_Offset extent;  ///< with the container that it ought to have
  bool otherContainer;
};

/// Throws the code of an operation of the table.
void Require(int code, const StoredFile& file, const char* what) {
  if (code != 0) {
    throw StoreError(std::string("cannot ") + what + " of the table in " + file.directory() + ": " +
                         ReasonOf(code),
                     code);
  }
}

/// All extents of the table that readers see. Adds the containers that they name to `*dcids` if
/// that is not null.
std::vector<Stray> StraysOf(const StoredFile& file, const LastingObjects& objects,
                            std::set<std::uint64_t>* dcids) {
  std::vector<Stray> strays;
  const auto behind = file.table().end();
  for (auto it = file.table().begin(); it != behind; ++it) {
    DataCacheNode::ObjectID id = it->getObjectID();
    if (dcids != nullptr) {
      dcids->insert(id.dcid);
    }
    const std::optional<Location> where = objects.Find(id.fp);
    if (!where.has_value()) {
      continue;  // damage, which nobody can put right here
    }
    const bool otherContainer = where->dcid != id.dcid;
    const bool otherOffset =
        it->getDCOffset() >= 0 && static_cast<std::uint32_t>(it->getDCOffset()) != where->offset;
    if (otherContainer || otherOffset) {
      id.dcid = where->dcid;
      strays.push_back({{id, it->getSOff(), it->getEOff()}, otherContainer});
    }
  }
  return strays;
}

/// Has the file flushed without a word in the catalogue: its bytes stay what they are.
class WithoutShare {
 public:
  WithoutShare(StoredFile* file, std::string name) : file_(*file), name_(std::move(name)) {
    file_.SetShare("");
  }
  ~WithoutShare() { file_.SetShare(name_); }
  WithoutShare(const WithoutShare&) = delete;
  WithoutShare& operator=(const WithoutShare&) = delete;

 private:
  StoredFile& file_;
  std::string name_;
};

/// Sets the container of extents. They keep the offset, which is wrong from now on.
void SetContainers(StoredFile* file, const std::vector<Stray>& strays) {
  MappingTable::ObjectIDs ids;
  for (const Stray& stray : strays) {
    if (stray.otherContainer) {
      ids.push_back(stray.extent);
    }
  }
  Require(file->table().UpdateObjectIdsByRange(0, LONG_MAX, ids), *file, "rewrite the containers");
}

/// Sets the offsets of extents that have been asked for.
void SetOffsets(StoredFile* file, const LastingObjects& objects) {
  std::vector<DCOffset> wanted;
  Require(file->table().GetEmptyDcOffsetList(&wanted), *file, "read the wanted offsets");
  for (DCOffset& one : wanted) {
    const std::optional<Location> where = objects.Find(one.fp);
    one.dcOffset =
        where.has_value() && where->dcid == one.dcid ? std::int64_t{where->offset} : kGivenUp;
  }
  Require(file->table().BackfillDcOffset(wanted), *file, "set the offsets");
}

/// A table that lists containers that no extent names counts what newer records hide.
void DropHidden(StoredFile* file, const std::set<std::uint64_t>& named) {
  TableReferences told;
  file->table().GetDCIDAndBloomFilter(&told.bytesByDcid, &told.filter);
  for (const auto& [dcid, bytes] : told.bytesByDcid) {
    if (named.count(dcid) == 0) {
      MergedExtents(file);
      return;
    }
  }
}

}  // namespace

bool IsCompacting(const StoreDirectory& directory) {
  if (::access(directory.compacting().c_str(), F_OK) == 0) {
    return true;
  }
  if (errno != ENOENT) {
    throw SystemError("look at", directory.compacting(), errno);
  }
  return false;
}

void BeginCompacting(DurableStore::Still* still) {
  FileHandle::Open(still->directory().compacting(), O_WRONLY | O_CREAT);
  SyncDirectory(still->directory().path());
  still->objects().SetByFingerprint(true);
}

void EndCompacting(DurableStore::Still* still) {
  const std::string& path = still->directory().compacting();
  if (::unlink(path.c_str()) != 0 && errno != ENOENT) {
    throw SystemError("remove", path, errno);
  }
  SyncDirectory(still->directory().path());
  still->objects().SetByFingerprint(false);
}

void FinishCompaction(DurableStore::Still* still) {
  if (!IsCompacting(still->directory())) {
    return;
  }
  still->objects().MakeDurable();
  const SmallFilters small;
  still->VisitAll(still->Names(),
                  [&](const std::string& name, StoredFile& file, KeptReferences* kept) {
                    kept->reset();
                    std::set<std::uint64_t> named;
                    if (StraysOf(file, still->objects(), &named).empty()) {
                      DropHidden(&file, named);
                    } else {
                      CatchUp(name, &file, still->objects(), /*merged=*/false);
                    }
                  });
  EndCompacting(still);
}

SmallFilters::SmallFilters()
    : before_(FileSystemDaemonConfig::GetInstance().Get(
          &FileSystemDaemonConfig::mergeWaitEntriesThreshold)) {
  FileSystemDaemonConfig::GetInstance().Set(&FileSystemDaemonConfig::mergeWaitEntriesThreshold,
                                            std::min(before_, kFewRecords));
}

SmallFilters::~SmallFilters() {
  FileSystemDaemonConfig::GetInstance().Set(&FileSystemDaemonConfig::mergeWaitEntriesThreshold,
                                            before_);
}

MappingTable::ObjectIDs MergedExtents(StoredFile* file) {
  MappingTable::ObjectIDs extents = file->table().GetObjectIdsAndOffsets(0, LONG_MAX);
  if (!file->FinishMerges()) {
    throw StoreError("the merge of the table in " + file->directory() + " does not come to an end",
                     0);
  }
  SyncDirectory(file->directory());
  return extents;
}

std::uint64_t CatchUp(const std::string& name, StoredFile* file, const LastingObjects& objects,
                      bool merged) {
  if (!merged) {
    MergedExtents(file);
  }
  const std::vector<Stray> strays = StraysOf(*file, objects, nullptr);
  if (strays.empty()) {
    return 0;
  }
  const WithoutShare quiet(file, name);
  for (const auto& [extent, otherContainer] : strays) {
    Require(file->table().AppendToRefreshDcOffsetList(static_cast<long>(extent.startOffset),
                                                      extent.objectID.dcid, extent.objectID.fp),
            *file, "ask for the offsets");
  }
  file->FlushAll();  // only what is in a file is handed out
  SetContainers(file, strays);
  SetOffsets(file, objects);
  file->FlushAll();
  if (!StraysOf(*file, objects, nullptr).empty()) {
    throw StoreError("the table in " + file->directory() +
                         " does not take the new places of its "
                         "objects",
                     0);
  }
  MergedExtents(file);  // what the table counts still has the old containers
  return strays.size();
}

}  // namespace zefs::refhost
