#pragma once

#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "refhost/host/log_recorder.h"
#include "tests/system/faults/fault_fixture.h"
#include "tests/system/faults/fault_kinds.h"
#include "tests/system/faults/operations.h"
#include "tests/system/faults/small_table.h"

namespace zefs::test {

/// Runs operations with each of their calls failing. By default a part of the calls, by a seed that
/// is printed; all of them with ZEFS_TEST_EVERY_CALL=1 in the environment.
class FaultSweep : public FaultTest {
 protected:
  FaultSweep();

  /// Sweeps all operations of `group` from both states of a table, with the calls of `domain`
  /// failing, and tells how many have failed.
  void Sweep(Group group, Domain domain);

  /// Runs all operations, each on a table whose directory has gone.
  void SweepRemovedDirectories();

 private:
  struct Case;
  struct Reference;

  void SweepOperation(const Operation& operation, Start start, Domain domain);
  void RunWithoutDirectory(const Operation& operation, Start start);
  /// Of an undisturbed run.
  Reference Undisturbed(const Operation& operation, Start start);
  /// Runs one case with the fault, and everything that must hold afterwards. Whether it fired.
  bool Run(const Case& c);
  void Check(const Case& c, SmallTable* table, const std::string& end);
  static bool MayRunMerge(const Operation& operation, Start start);
  void CheckEnd(const Case& c, const std::string& end);
  void CheckLoad(const Case& c, SmallTable* table, bool isSetUp);
  void CheckAnswers(const Case& c, SmallTable* table, const std::string& end);
  void CheckRepeated(const Case& c, SmallTable* table);
  void CheckGoesOn(SmallTable* table);
  void CheckStoredIn(const Case& c, const std::string& directory, const std::string& type);
  static void Prepare(const Operation& operation, SmallTable* table);

  std::mt19937_64 random_;
  bool everyCall_ = false;
  long fired_ = 0;
};

}  // namespace zefs::test
