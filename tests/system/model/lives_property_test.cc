// Programs of fixed seeds on the genuine tables, and on faulty ones.

#include <gtest/gtest.h>

#include "tests/support/figures.h"
#include "tests/support/in_memory.h"
#include "tests/support/property.h"
#include "tests/system/model/faulty_tables.h"
#include "tests/system/model/lives.h"
#include "tests/system/model/minimise.h"
#include "tests/system/model/shared_memory.h"

namespace zefs::test {
namespace {

TEST(LivesPropertyTest, BothTablesAnswerAsTheModelThroughAllLivesOfEveryProgram) {
  constexpr std::uint64_t kPrograms = 40;
  const TableMakers genuine = Genuine();
  const SharedWithChildren<Tally> tally;
  std::cout << "ZEFS_TEST_SEED=" << PropertySeed() << '\n';
  for (std::uint64_t i = 0; i < kPrograms; ++i) {
    const Program program = AnyProgram(PropertySeed() + i);
    const auto difference = RunProgram(program, genuine, &*tally);
    ASSERT_EQ(std::nullopt, difference) << program;
  }
  EXPECT_EQ(kPrograms, tally->programs.load());
  EXPECT_GT(tally->crashes.load(), kPrograms / 2);
  EXPECT_GT(tally->merges.load(), kPrograms);
  EXPECT_GT(tally->reloads.load(), kPrograms);
  EXPECT_GT(tally->leftBehind.load(), kPrograms / 8);
  for (std::size_t kind = 0; kind < kKinds; ++kind) {
    EXPECT_GT(tally->byKind.at(kind).load(), 0U) << NameOf(static_cast<Kind>(kind));
  }
  TellFigure("operations on two tables and one model", static_cast<long>(tally->operations.load()));
  TellFigure("answers compared with the model", static_cast<long>(tally->compares.load()));
  TellFigure("kills under the model", static_cast<long>(tally->crashes.load()));
}

/// The shortest program that shows the defect of the tables that `makers` make.
Program ProgramThatFinds(const TableMakers& makers) {
  const SharedWithChildren<Tally> tally;
  const auto fails = [&](const Program& program) {
    return RunProgram(program, makers, &*tally).has_value();
  };
  for (std::uint64_t seed = 1; seed <= 20; ++seed) {
    const Program program = AnyProgram(seed, 150);
    if (fails(program)) {
      return Minimised(program, fails, 200);
    }
  }
  ADD_FAILURE() << "no difference was found";
  return {};
}

std::size_t OperationsThatFind(const TableMakers& makers) {
  const Program program = ProgramThatFinds(makers);
  return program.operations.size();
}

TEST(FaultyTableTest, OneThatTruncatesLateIsFoundInFewOperations) {
  const std::size_t operations = OperationsThatFind(WithFaultyMemory<MemoryThatTruncatesLate>());
  EXPECT_GE(operations, 2U);  // a write and a truncate
  EXPECT_LE(operations, 4U);
}

TEST(FaultyTableTest, OneThatForgetsReferencesIsFoundInFewOperations) {
  const std::size_t operations =
      OperationsThatFind(WithFaultyMemory<MemoryThatForgetsReferences>());
  EXPECT_GE(operations, 2U);  // a write with a node, and the node ready
  EXPECT_LE(operations, 5U);
}

TEST(FaultyTableTest, OneThatWritesShortIsFoundInOneOperation) {
  EXPECT_EQ(1U, OperationsThatFind(WithFaultyStored<StoredThatWritesShort>()));
}

TEST(FaultyTableTest, OneThatReleasesNothingIsFoundInFewOperations) {
  const std::size_t operations = OperationsThatFind(WithFaultyStored<StoredThatReleasesNothing>());
  EXPECT_GE(operations, 2U);
  EXPECT_LE(operations, 5U);
}

TEST(FaultyTableTest, OneThatForgetsADatabaseIsFoundInFewOperations) {
  const std::size_t operations =
      OperationsThatFind(WithFaultyStored<StoredThatForgetsItsSmallDatabase>());
  EXPECT_GE(operations, 2U);  // something stored, and the end of a life
  EXPECT_LE(operations, 5U);
}

TEST(FaultyTableTest, OneThatDropsAWriteInFortyIsFound) {
  const SharedWithChildren<Tally> tally;
  const TableMakers makers = WithFaultyStored<StoredThatDropsWrites>();
  bool found = false;
  for (std::uint64_t seed = 1; seed <= 20 && !found; ++seed) {
    found = RunProgram(AnyProgram(seed), makers, &*tally).has_value();
  }
  EXPECT_TRUE(found);
}

}  // namespace
}  // namespace zefs::test
