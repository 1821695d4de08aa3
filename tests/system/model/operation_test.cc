#include "tests/system/model/operation.h"

#include <array>
#include <set>
#include <sstream>

#include <gtest/gtest.h>

#include "tests/system/model/minimise.h"

namespace zefs::test {
namespace {

std::string TextOf(const Program& program) {
  std::ostringstream out;
  out << program;
  return out.str();
}

TEST(ProgramTest, ASeedMakesTheSameProgramEachTimeAndAnotherSeedAnother) {
  EXPECT_EQ(TextOf(AnyProgram(7)), TextOf(AnyProgram(7)));
  EXPECT_NE(TextOf(AnyProgram(7)), TextOf(AnyProgram(8)));
}

TEST(ProgramTest, EveryKindOfOperationAndSettingIsMet) {
  std::set<Kind> kinds;
  std::set<std::string> names;
  std::set<std::string> types;
  std::set<bool> prefetch;
  bool far = false;
  bool atZero = false;
  for (std::uint64_t seed = 1; seed <= 30; ++seed) {
    const Program program = AnyProgram(seed);
    types.insert(program.settings.type);
    prefetch.insert(program.settings.prefetch);
    for (const Operation& operation : program.operations) {
      kinds.insert(operation.kind);
      names.insert(NameOf(operation.kind));
      far = far || operation.at > (1L << 32);
      atZero = atZero || operation.at == 0;
      EXPECT_GE(operation.at, 0);
      EXPECT_GT(operation.length, 0);
    }
  }
  EXPECT_EQ(kKinds, kinds.size());
  EXPECT_EQ(kKinds, names.size());
  EXPECT_EQ(4U, types.size());
  EXPECT_EQ(2U, prefetch.size());
  EXPECT_TRUE(far);
  EXPECT_TRUE(atZero);
}

TEST(ProgramTest, NamesAreThoseOfTheKinds) {
  EXPECT_STREQ("insert with node", NameOf(Kind::kInsertNode));
  EXPECT_STREQ("flush", NameOf(Kind::kFlush));
  EXPECT_STREQ("crash within", NameOf(Kind::kCrash));
}

TEST(MinimisedTest, WhatIsNotNeededToFailIsTakenOut) {
  Program program = AnyProgram(11, 200);
  program.operations[50].kind = Kind::kTruncate;
  program.operations[120].kind = Kind::kMerge;
  const auto fails = [](const Program& candidate) {
    bool truncated = false;
    for (const Operation& operation : candidate.operations) {
      truncated = truncated || operation.kind == Kind::kTruncate;
      if (truncated && operation.kind == Kind::kMerge) {
        return true;
      }
    }
    return false;
  };
  ASSERT_TRUE(fails(program));
  const Program shorter = Minimised(program, fails, 1000);
  ASSERT_EQ(2U, shorter.operations.size());
  EXPECT_EQ(Kind::kTruncate, shorter.operations[0].kind);
  EXPECT_EQ(Kind::kMerge, shorter.operations[1].kind);
}

TEST(MinimisedTest, ItGivesUpAfterSomeTries) {
  int tried = 0;
  const auto fails = [&tried](const Program& /*candidate*/) {
    ++tried;
    return false;
  };
  EXPECT_EQ(200U, Minimised(AnyProgram(11, 200), fails, 17).operations.size());
  EXPECT_EQ(17, tried);
}

}  // namespace
}  // namespace zefs::test
