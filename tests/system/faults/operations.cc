#include "tests/system/faults/operations.h"

#include <limits>
#include <new>
#include <optional>
#include <sstream>
#include <typeinfo>

#include <boost/filesystem/operations.hpp>

#include "persistent/lmdb_write_extent_txn.h"
#include "persistent/metadata_volumes.h"
#include "tests/support/oid.h"
#include "tests/system/faults/memory_faults.h"

namespace zefs::test {

namespace fs = boost::filesystem;
namespace lib = Aldenta::Qnd::Morene::Zefs;
using CMappingLMDB = lib::CMappingLMDB;
using Config = FileSystemDaemonConfig;

namespace {

constexpr long kCut = 205;  // inside an extent of each level
constexpr unsigned long kAll = static_cast<unsigned long>(std::numeric_limits<long>::max());

/// Tells `text` as the answer, in memory that does not run out.
template <typename... Parts>
int Answer(SmallTable& table, const Parts&... parts) {
  const MemoryFaults::Spared spared;
  std::ostringstream text;
  ((text << parts << ' '), ...);
  table.answer = text.str();
  return 0;
}

int AnswerExtent(SmallTable& table, const lib::CMappingTable::iterator& at) {
  const MemoryFaults::Spared spared;
  if (at == table.table().end()) {
    return Answer(table, "end");
  }
  return Answer(table, at->sOff, at->eOff, at->objectID.dcid, at->objOff, at->dcOffset);
}

int AnswerIds(SmallTable& table, const CMappingLMDB::ObjectIDs& ids) {
  const MemoryFaults::Spared spared;
  std::ostringstream text;
  for (const auto& id : ids) {
    text << '[' << id.startOffset << ", " << id.endOffset << ") " << id.objectID.dcid << ' ';
  }
  return Answer(table, text.str());
}

/// What the references are, whatever their order.
template <typename Dcids>
int AnswerDcids(SmallTable& table, const Dcids& dcids, std::size_t others) {
  const MemoryFaults::Spared spared;
  std::ostringstream text;
  for (const auto& [dcid, bytes] :
       std::map<unsigned long, unsigned long>(dcids.begin(), dcids.end())) {
    text << dcid << ": " << bytes << ' ';
  }
  return Answer(table, text.str(), others);
}

/// Waits for the merge that an operation may have started, however it ends.
class MergeAwaited {
 public:
  explicit MergeAwaited(SmallTable* table) : table_(table) {}
  ~MergeAwaited() { table_->peer().WaitingForMerge(); }
  MergeAwaited(const MergeAwaited&) = delete;
  MergeAwaited& operator=(const MergeAwaited&) = delete;

 private:
  SmallTable* table_;
};

int Flush(SmallTable& table, bool force) {
  const MergeAwaited awaited(&table);
  std::set<void*> released;
  CMappingLMDB::UniqueLock lock;
  table.table().checkAndBackfillObjectID(&released, force, "scope", "share", nullptr, &lock);
  return 0;
}

/// A failed commit of a flush loses what it took from the cache, of which a node that is the last
/// ready one is part only if the flush is forced.
std::vector<Bytes> LostFlush(const Bytes& before, const Bytes& /*after*/, Start start) {
  constexpr std::size_t kLastReady = 330;
  const Bytes stored = ExpectedStored(start);
  Bytes lost = before;
  for (std::size_t at = 0; at < lost.size(); ++at) {
    if (IsFlushed(static_cast<long>(at))) {
      lost[at] = stored[at];
    }
  }
  Bytes kept = lost;
  std::copy(before.begin() + kLastReady, before.end(), kept.begin() + kLastReady);
  return {lost, kept};
}

/// What a truncate has done to one database.
enum class Cut { kNot, kBehindOnly, kWhole };

Byte AfterCut(const Bytes& level, std::size_t at, Cut cut) {
  const bool spans = level[at].dcid == level[kCut - 1].dcid;
  return cut == Cut::kNot || (cut == Cut::kBehindOnly && spans) ? level[at] : Byte{};
}

/// The cache is cut, and the databases as far as it got. If the last record cannot be read, an
/// extent that spans the new size stays whole.
std::vector<Bytes> PartlyTruncated(const Bytes& before, const Bytes& /*after*/, Start start) {
  std::vector<Bytes> states;
  const std::vector<Bytes> levels = Levels(start);
  for (const Cut full : {Cut::kNot, Cut::kBehindOnly, Cut::kWhole}) {
    for (const Cut small : {Cut::kNot, Cut::kBehindOnly, Cut::kWhole}) {
      Bytes state = before;
      for (std::size_t at = kCut; at < state.size(); ++at) {
        const Byte tmp = levels.size() > 2 ? levels[2][at] : Byte{};
        const Byte upper = AfterCut(levels[1], at, small);
        const Byte lower = AfterCut(levels[0], at, full);
        state[at] = !(tmp == Byte{}) ? tmp : !(upper == Byte{}) ? upper : lower;
      }
      states.push_back(state);
    }
  }
  return states;
}

/// Of three offsets the first has been filled in.
std::vector<Bytes> PartlyBackfilled(const Bytes& before, const Bytes& after, Start /*start*/) {
  constexpr std::size_t kSecond = 200;
  Bytes state = before;
  std::copy_n(after.begin(), kSecond, state.begin());
  return {state};
}

// NOLINTNEXTLINE(readability-function-size): a table, of one entry for an operation
std::vector<Operation> MakeOperations() {
  const auto probe = [](SmallTable& t, long at) {
    lib::CMappingTable::SharedLock lock;
    return AnswerExtent(t, t.table().lower_bound(at, &lock));
  };
  std::vector<Operation> all;
  const auto add = [&](Operation operation) { all.push_back(std::move(operation)); };

  // --- life ---
  {
    Operation o{"constructor", Group::kLife, [](SmallTable& t) {
                  t.Make();
                  return 0;
                }};
    o.isLoaded = false;
    o.beforeRepeat = [](SmallTable& t) { t.Destroy(); };
    add(o);
  }
  {
    Operation o{"load", Group::kLife,
                [](SmallTable& t) { return t.table().load(t.directory(), false, ""); }};
    o.prepare = [](SmallTable& t) { t.Make(); };
    o.isLoaded = false;
    o.isLoad = true;
    o.isSilent = true;  // a version that cannot be committed is returned
    add(o);
  }
  {
    Operation o{"destructor", Group::kLife, [](SmallTable& t) {
                  t.Destroy();
                  return 0;
                }};
    o.endsObject = true;
    add(o);
  }

  // --- reads ---
  add({"begin", Group::kReads, [](SmallTable& t) { return AnswerExtent(t, t.table().begin()); }});
  add({"end", Group::kReads, [](SmallTable& t) { return AnswerExtent(t, t.table().end()); }});
  add({"find", Group::kReads,
       [](SmallTable& t) { return AnswerExtent(t, t.table().find(121, nullptr)); }});
  add({"lower_bound", Group::kReads, [probe](SmallTable& t) { return probe(t, 25); }});
  add({"lower_bound, of a hole", Group::kReads, [probe](SmallTable& t) { return probe(t, 220); }});
  add({"lower_bound, of nothing", Group::kReads, [probe](SmallTable& t) { return probe(t, 450); }});
  add({"lower_bound, a walk", Group::kReads, [](SmallTable& t) {
         int extents = 0;
         const auto end = t.table().end();
         for (auto at = t.table().lower_bound(0, nullptr); at != end; ++at) {
           ++extents;
         }
         return Answer(t, extents);
       }});
  add({"lower_bound_in_cache", Group::kReads, [](SmallTable& t) {
         return AnswerExtent(t, t.table().lower_bound_in_cache(100, nullptr));
       }});
  add({"size", Group::kReads, [](SmallTable& t) { return Answer(t, t.table().size()); }});
  add({"getTableSize", Group::kReads, [](SmallTable& t) {
         long extents = 1;
         long keys = 1;
         const long size = t.table().getTableSize(&extents, &keys);
         return Answer(t, size, extents, keys);
       }});
  add({"getFileSize", Group::kReads,
       [](SmallTable& t) { return Answer(t, t.table().getFileSize()); }});
  add({"getExtMapVersion", Group::kReads,
       [](SmallTable& t) { return Answer(t, t.table().getExtMapVersion().major); }});
  add({"needCommit", Group::kReads,
       [](SmallTable& t) { return Answer(t, t.table().needCommit()); }});
  add({"setCommit", Group::kReads, [](SmallTable& t) {
         t.table().setCommit(true);
         return 0;
       }});
  add({"GetDOID", Group::kReads, [](SmallTable& t) {
         lib::ObjectID id;
         const int ret = t.table().GetDOID(&id);
         Answer(t, id.dcid);
         return ret;
       }});
  add({"IsDataChanged", Group::kReads,
       [](SmallTable& t) { return Answer(t, t.table().IsDataChanged()); }});
  add({"GetWritingNodesCount", Group::kReads,
       [](SmallTable& t) { return Answer(t, t.table().GetWritingNodesCount()); }});
  add({"GetWritingNodes", Group::kReads, [](SmallTable& t) {
         std::vector<lib::DataCacheNodePointerWithStatus> nodes;
         t.table().GetWritingNodes(&nodes, false);
         return Answer(t, nodes.size());
       }});
  add({"GetNewReferencedDCID", Group::kReads, [](SmallTable& t) {
         t.table().GetNewReferencedDCID(nullptr);
         return 0;
       }});
  add({"GetReferencedFP", Group::kReads, [](SmallTable& t) {
         t.table().GetReferencedFP(nullptr);
         return 0;
       }});
  add({"GetDCIDAndFP", Group::kReads, [](SmallTable& t) {
         std::vector<std::pair<unsigned long, unsigned long>> dcids;
         std::vector<FingerprintText> fps;
         t.table().GetDCIDAndFP(&dcids, &fps);
         return AnswerDcids(t, dcids, fps.size());
       }});
  add({"GetDCIDAndFPs", Group::kReads, [](SmallTable& t) {
         std::unordered_map<unsigned long, unsigned long> dcids;
         std::vector<crfp_digest_t> fps;
         const int ret = t.table().GetDCIDAndFPs(&dcids, &fps);
         AnswerDcids(t, dcids, fps.size());
         return ret;
       }});
  add({"GetDCIDAndBloomFilter", Group::kReads, [](SmallTable& t) {
         std::vector<std::pair<unsigned long, unsigned long>> dcids;
         std::unique_ptr<BloomFilter> filter;
         t.table().GetDCIDAndBloomFilter(&dcids, &filter);
         const MemoryFaults::Spared spared;
         bool denied = false;
         for (const int stored : {70, 71, 72, 73, 80}) {
           denied = denied || !filter->Contains(DigestOf(static_cast<unsigned char>(stored)));
         }
         return AnswerDcids(t, dcids, denied ? 1 : 0);
       }});
  add({"iterator, copied and compared", Group::kReads, [](SmallTable& t) {
         const auto at = t.table().begin();
         auto other = t.table().end();
         other = at;
         return Answer(t, other == at, other != t.table().end());
       }});
  for (Operation& operation : all) {
    // The read that tells what lies before a gap is not logged when it fails.
    operation.isSilent = operation.group == Group::kReads;
    if (operation.name == "size" || operation.name == "getTableSize") {
      operation.mayAnswerLess = true;  // 0
    }
  }

  // --- cache ---
  {
    Operation o{"insert", Group::kCache, [](SmallTable& t) {
                  const auto oid = Oid(110);
                  return t.table().insert(22, 65, &oid, 0, 0, nullptr, -3, nullptr);
                }};
    o.outOfMemory = OutOfMemory::kDestroyOnly;
    add(o);
    o.name = "insert, inside a node's extent";
    o.run = [](SmallTable& t) {
      const auto oid = Oid(111);
      return t.table().insert(334, 336, &oid, 0, 0, nullptr, -3, nullptr);
    };
    add(o);
    o.name = "append";
    o.run = [](SmallTable& t) {
      const auto oid = Oid(112);
      return t.table().append(420, 430, &oid, 0, 0, nullptr, nullptr);
    };
    add(o);
    o.name = "ExtLMDB::update";
    o.prepare = [](SmallTable& t) { t.answer = ""; };
    o.run = [](SmallTable& t) {
      lib::ExtLMDB ext;
      ext.owner_ = &t.table();
      ext.sOff = 430;
      ext.eOff = 440;
      return ext.update();
    };
    add(o);
  }
  add({"GetExtentData", Group::kCache, [](SmallTable& t) {
         std::set<void*> nodes;
         t.table().GetExtentData(&nodes);
         return Answer(t, nodes.size());
       }});
  add({"SetObjectID", Group::kCache, [](SmallTable& t) {
         lib::Ext ext;
         t.table().SetObjectID(&ext, Oid(1));
         return 0;
       }});

  // --- flush ---
  {
    Operation o{"checkAndBackfillObjectID", Group::kFlush,
                [](SmallTable& t) { return Flush(t, true); }};
    o.outOfMemory = OutOfMemory::kDestroyOnly;
    o.between = LostFlush;
    o.beforeRepeat = [](SmallTable& t) {
      t.MakeAllReady();  // what is left in the list would hold up what is written again
      t.WriteCache();
    };
    add(o);
    o.name = "checkAndBackfillObjectID, not forced";
    o.run = [](SmallTable& t) { return Flush(t, false); };
    add(o);
    o.name = "checkAndBackfillObjectIDUnlock";
    o.run = [](SmallTable& t) {
      const MergeAwaited awaited(&t);
      t.table().checkAndBackfillObjectIDUnlock(true);
      return 0;
    };
    add(o);
    o.name = "checkAndBackfillObjectID, and a merge";
    o.run = [](SmallTable& t) {
      Config::GetInstance().Set(&Config::mergeCommitCountThreshold, 0U);
      Config::GetInstance().Set(&Config::mergeWaitEntriesThreshold, 0U);
      return Flush(t, true);
    };
    o.group = Group::kMerge;
    o.runsMerge = true;
    add(o);
  }

  // --- merge ---
  {
    Operation o{"merge", Group::kMerge, [](SmallTable& t) {
                  t.peer().StartMergeThread();
                  t.peer().WaitingForMerge();
                  return 0;
                }};
    o.runsMerge = true;
    o.prepare = [](SmallTable& t) { Flush(t, false); };
    add(o);
    o.name = "merge, on the caller's thread";
    o.run = [](SmallTable& t) { return t.peer().MergeAndSwitch(); };
    add(o);
    o.name = "GetObjectIdsAndOffsets";
    o.run = [](SmallTable& t) { return AnswerIds(t, t.table().GetObjectIdsAndOffsets(0, kAll)); };
    o.mayAnswerLess = true;
    add(o);
  }

  // --- what is stored ---
  add({"setFileSize", Group::kStored, [](SmallTable& t) { return t.table().setFileSize(1000); }});
  add({"setExtMapVersion", Group::kStored, [](SmallTable& t) {
         return t.table().setExtMapVersion({3, 1});
       }});
  add({"SetDOID", Group::kStored, [](SmallTable& t) {
         auto oid = Oid(300);
         return t.table().SetDOID(&oid);
       }});
  {
    Operation o{"truncate", Group::kStored,
                [](SmallTable& t) { return t.table().truncate(kCut, nullptr); }};
    o.between = PartlyTruncated;
    o.outOfMemory = OutOfMemory::kDestroyOnly;
    add(o);
  }
  {
    Operation o{"UpdateObjectIdsByRange", Group::kStored, [](SmallTable& t) {
                  lib::ObjectID id;
                  id.dcid = 170;
                  id.fp = DigestOf(72);
                  const CMappingLMDB::ObjectIDs ids = {{id, 0, 400}};
                  return t.table().UpdateObjectIdsByRange(0, 400, ids);
                }};
    o.mayAnswerLess = true;
    add(o);
    o.name = "GetObjectIdsAndOffsets, without a merge";
    o.run = [](SmallTable& t) { return AnswerIds(t, t.table().GetObjectIdsAndOffsets(1, kAll)); };
    add(o);
  }
  add({"LmdbWriteExtentTxn", Group::kStored, [](SmallTable& t) {
         auto& db = t.peer().fullDb();
         lib::LmdbWriteExtentTxn transaction(db.env, &db.dbi, t.peer().lmdbApi());
         long key = 0;
         lib::ExtLMDBEntry entry;
         int ret = transaction.findWithCursor(&key, &entry);
         if (ret == 0) {
           ret = transaction.getWithCursor(&key, &entry, MDB_NEXT);
         }
         if (ret == 0) {
           ret = transaction.put(key, &entry);
         }
         if (ret == 0) {
           transaction.commit();
         }
         return ret;
       }});

  // --- plans ---
  {
    Operation o{"GetDCInfoList", Group::kPlans, [](SmallTable& t) {
                  Config::GetInstance().Set(&Config::prefetchEnabled, 1);
                  std::list<CMappingLMDB::DCInfo> plan;
                  t.table().GetDCInfoList({0, 360, 7}, &plan);
                  const MemoryFaults::Spared spared;
                  std::ostringstream text;
                  for (const auto& info : plan) {
                    text << info.dcid << ": " << info.totalBytes << ' ';
                  }
                  return Answer(t, text.str());
                }};
    o.mayAnswerLess = true;
    add(o);
  }
  {
    Operation o{"GetEmptyDcOffsetList", Group::kPlans, [](SmallTable& t) {
                  std::vector<zefs::DCOffset> offsets;
                  const int ret = t.table().GetEmptyDcOffsetList(&offsets);
                  Answer(t, offsets.size());
                  return ret;
                }};
    o.mayAnswerLess = true;
    add(o);
  }
  {
    Operation o{"BackfillDcOffset", Group::kPlans, [](SmallTable& t) {
                  std::vector<zefs::DCOffset> offsets = {
                      {0, 70, DigestOf(70), 4711}, {210, 72, DigestOf(72), 4712}, {1, 99, {}, -1}};
                  return t.table().BackfillDcOffset(offsets);
                }};
    o.between = PartlyBackfilled;
    o.isSilent = true;  // as a look-up
    o.outOfMemory = OutOfMemory::kDestroyOnly;
    add(o);
  }
  add({"AppendToRefreshDcOffsetList", Group::kPlans, [](SmallTable& t) {
         const int ret = t.table().AppendToRefreshDcOffsetList(0, 70, DigestOf(70));
         return ret != 0 ? ret : t.table().AppendToRefreshDcOffsetList(40, 80, DigestOf(80));
       }});

  // --- files ---
  add({"save", Group::kFiles, [](SmallTable& t) { return t.table().save(t.directory(), 0); }});
  {
    Operation o{"UpdateExtPath", Group::kFiles, [](SmallTable& t) {
                  t.table().UpdateExtPath(t.directory());
                  return 0;
                }};
    o.prepare = [](SmallTable& t) {
      t.table().AppendToRefreshDcOffsetList(0, 70, DigestOf(70));
      const fs::path moved = t.directory() + " with a name that is longer than it was before";
      fs::rename(t.directory(), moved);
      t.MoveTo(moved);
    };
    add(o);
  }
  {
    Operation o{"Snapshot", Group::kFiles, [](SmallTable& t) {
                  return t.table().Snapshot(t.directory(), t.root() + "/deep/snapshot");
                }};
    o.beforeRepeat = [](SmallTable& t) { fs::remove_all(t.root() + "/deep"); };
    add(o);
  }
  {
    Operation o{"remove", Group::kFiles,
                [](SmallTable& t) { return t.table().remove(t.directory()); }};
    o.removesFiles = true;
    add(o);
  }
  add({"GetMapAbsolutePath", Group::kFiles, [](SmallTable& t) {
         std::string path;
         return CMappingLMDB::GetMapAbsolutePath(t.directory() + "/data.mdb", &path);
       }});
  add({"GetMapRelativePath", Group::kFiles, [](SmallTable& t) {
         std::string path;
         return CMappingLMDB::GetMapRelativePath(t.directory() + "/data.mdb", &path);
       }});
  add({"GetMapIndexSet", Group::kFiles, [](SmallTable& t) {
         std::set<std::string> prefixes;
         const int ret = CMappingLMDB::GetMapIndexSet(t.directory(), &prefixes);
         Answer(t, prefixes.size());
         return ret;
       }});
  add({"DcOffsetAviliable", Group::kFiles,
       [](SmallTable& t) { return Answer(t, lib::DcOffsetAviliable(t.directory())); }});
  {
    Operation o{
        "GetExtentPathInMVolume", Group::kFiles, [](SmallTable& t) {
          // Of a new name each time: what is known of a volume is kept for a while.
          static int number = 0;
          const std::vector<std::string> volumes = {t.root() + "/./" + std::to_string(++number)};
          return Answer(t, lib::GetExtentPathInMVolume(volumes, true, "key") == volumes.front());
        }};
    o.keepsMemory = true;
    add(o);
  }
  add({"LMDBErrorMessage", Group::kFiles,
       [](SmallTable& t) { return Answer(t, CMappingLMDB::LMDBErrorMessage(MDB_MAP_FULL)); }});
  return all;
}

}  // namespace

const std::vector<Operation>& PersistentOperations() {
  static const std::vector<Operation> operations = MakeOperations();
  return operations;
}

std::string EndOf(const std::function<int()>& run, int code) {
  std::optional<MemoryFaults::Spared> spared;  // from the end of the operation on
  const auto named = [code](int number) {
    return number == code && number != 0 ? std::string("code") : std::to_string(number);
  };
  try {
    const int ret = run();
    spared.emplace();
    return named(ret);
  } catch (const lib::SysException& e) {
    spared.emplace();
    return "throws " + named(e.code);
  } catch (const fs::filesystem_error&) {
    spared.emplace();
    return "throws filesystem_error";
  } catch (const std::bad_alloc&) {
    spared.emplace();
    return "throws bad_alloc";
  } catch (const std::exception& e) {
    spared.emplace();
    return std::string("throws ") + typeid(e).name();
  } catch (int number) {
    spared.emplace();
    return "throws the number " + std::to_string(number);
  }
}

}  // namespace zefs::test
