#include <map>

#include "tests/system/faults/operations.h"

// What the failures of each operation look like to its caller.

namespace zefs::test {
namespace {

/// A transaction or cursor that cannot be had.
const Ends kThrown = {"throws code"};
/// A write of LMDB that is cut short comes out as an error of input and output.
const Ends kThrownOfWrite = {"throws code", "throws 5"};
const Ends kReturnedOfWrite = {"code", "5"};

Ends operator+(Ends a, const Ends& b) {
  a.insert(b.begin(), b.end());
  return a;
}

const Told kLookUp = {kThrown, {}, kThrown};

std::map<std::string, Told> MakeTold() {
  std::map<std::string, Told> told;
  // A journal that cannot be opened is thrown; one that cannot be read is returned, as is a version
  // that cannot be stored. Boost's exceptions come from the look at the files.
  told["load"] = {
      kThrown + Ends{"code"},
      kThrownOfWrite + kReturnedOfWrite +
          Ends{"-1", "-2", "throws -1", "throws -2", "throws 28", "throws filesystem_error"},
      kThrown + Ends{"code", "throws 5"}};
  for (const char* const name : {"begin", "find", "lower_bound", "size", "getTableSize",
                                 "GetDCIDAndFPs", "GetDCIDAndBloomFilter", "iterator"}) {
    told[name] = kLookUp;
  }
  // -1: a put or a count that failed, of the databases or of the files beside them. Boost's
  // exception: the journal cannot be looked at when it ends.
  for (const char* const name : {"checkAndBackfillObjectID", "checkAndBackfillObjectIDUnlock"}) {
    told[name] = {kThrown + Ends{"throws -1"},
                  kThrownOfWrite + Ends{"throws -1", "throws filesystem_error"},
                  kThrown + Ends{"throws -1"}};
  }
  // Its own thread tells nobody; a caller learns that it could not begin, or its last code.
  told["merge"] = {kThrown + Ends{"throws 5", "code"},
                   kThrown + Ends{"throws 5", "throws 28", "code", "-1"},
                   kThrown + Ends{"throws 5", "code"}};
  // The number 0: the merge has lost the database.
  told["GetObjectIdsAndOffsets"] = {kThrown + Ends{"throws 0"}, kThrown + Ends{"throws 0"},
                                    kThrown + Ends{"throws 0"}};
  told["setFileSize"] = {kThrown + Ends{"code"}, kThrownOfWrite + kReturnedOfWrite,
                         kThrown + Ends{"code"}};
  told["setExtMapVersion"] = told["setFileSize"];
  told["SetDOID"] = {kThrown, kThrownOfWrite, kThrown};
  told["truncate"] = {kThrown + Ends{"code", "-1"}, kThrownOfWrite + kReturnedOfWrite,
                      kThrown + Ends{"code", "-1"}};
  told["UpdateObjectIdsByRange"] = {kThrown + Ends{"code"}, kThrownOfWrite, kThrown + Ends{"code"}};
  told["LmdbWriteExtentTxn"] = told["UpdateObjectIdsByRange"];
  told["GetDCInfoList"] = kLookUp;
  const Ends kStoreFailed = {"code", "-1"};
  told["GetEmptyDcOffsetList"] = {{}, {"-1", "throws filesystem_error"}, {}};
  told["BackfillDcOffset"] = {kThrown, kStoreFailed + Ends{"throws filesystem_error"}, kThrown};
  told["AppendToRefreshDcOffsetList"] = {{}, kStoreFailed, {}};
  told["Snapshot"] = {{},
                      {"throws code", "throws 5", "throws filesystem_error"},
                      {"throws 5", "throws filesystem_error"}};
  told["remove"] = {{}, {"-1", "throws filesystem_error"}, {"-1", "throws filesystem_error"}};
  told["GetMapIndexSet"] = {{}, {"throws filesystem_error"}, {"throws filesystem_error"}};
  told["DcOffsetAviliable"] = told["GetMapIndexSet"];
  return told;
}

}  // namespace

const Told& ToldOf(const std::string& operation) {
  static const std::map<std::string, Told> told = MakeTold();
  static const Told nothing;
  const auto found = told.find(operation.substr(0, operation.find(',')));
  return found == told.end() ? nothing : found->second;
}

}  // namespace zefs::test
