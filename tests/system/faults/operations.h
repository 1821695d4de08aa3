#pragma once

#include <functional>
#include <set>
#include <string>
#include <vector>

#include "tests/system/faults/small_table.h"

namespace zefs::test {

/// Operations that are swept together.
enum class Group { kLife, kReads, kCache, kFlush, kMerge, kStored, kPlans, kFiles };

/// Whether the table can be used after an operation that has run out of memory.
enum class OutOfMemory {
  kUsable,      ///< as if the operation had not begun, or had been carried out
  kDestroyOnly  ///< what is stored is sound; what is in memory may be in pieces
};

/// How a failed operation may end: "-1" for a result, "throws 5" for a SysException, and "code" in
/// place of a number for the code that the failed call gave.
using Ends = std::set<std::string>;

/// What is told of an operation's failures.
struct Told {
  Ends lmdb{};    ///< after a failed call of LMDB
  Ends file{};    ///< after a failed system call
  Ends memory{};  ///< besides std::bad_alloc
};

/// By the name of the operation, without a remark. It may also end as if nothing had failed.
const Told& ToldOf(const std::string& operation);

/// One operation. What it does without any fault is seen from a run without one.
struct Operation {
  std::string name;
  Group group;
  std::function<int(SmallTable& table)> run;

  OutOfMemory outOfMemory = OutOfMemory::kUsable;

  /// The state of the table before; by default it is loaded, has a filled cache, and the host has
  /// its references.
  std::function<void(SmallTable& table)> prepare{};
  bool isLoaded = true;
  /// Before it is run once more: what a host does again after a failed write.
  std::function<void(SmallTable& table)> beforeRepeat{};
  /// Other bytes than those before or after it that may be seen when it has failed. The byte's own
  /// ones are given, and what is stored below the cache.
  std::function<std::vector<Bytes>(const Bytes& before, const Bytes& after, Start start)> between{};
  bool mayAnswerLess = false;  ///< a failed read may go unnoticed by the caller
  bool isSilent = false;       ///< some failures are thrown without a line in the log
  bool runsMerge = false;      ///< may lose a database, and then says so until it is loaded again
  bool isLoad = false;
  bool endsObject = false;   ///< the destructor
  bool keepsMemory = false;  ///< for as long as the process lives
  bool removesFiles = false;
};

/// Every operation of the persistent table. Named as the virtual ones are; a second case of one has
/// a remark behind a comma.
const std::vector<Operation>& PersistentOperations();

/// How `run` ended, as in Ends; "0" for a success. `code` is that of the failed call.
std::string EndOf(const std::function<int()>& run, int code);

}  // namespace zefs::test
