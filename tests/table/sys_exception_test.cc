#include "table/sys_exception.h"

#include <algorithm>
#include <string>

#include <gtest/gtest.h>

#include "tests/support/vtable_slot.h"

namespace {

using namespace Aldenta::Qnd::Morene::Zefs;
using zefs::test::SlotOf;

TEST(SysExceptionTest, WhatIsErrnoTheCodeAndANewline) {
  EXPECT_STREQ("errno 14\n", SysException(14).what());
  EXPECT_STREQ("errno -1\n", SysException(-1).what());
  EXPECT_STREQ("errno -30799\n", SysException(-30799).what());
  EXPECT_EQ(14, SysException(14).code);
}

TEST(SysExceptionTest, IsCaughtAsEachOfItsBases) {
  EXPECT_THROW(throw SysException(22), Exception);
  EXPECT_THROW(throw SysException(22), std::exception);
}

TEST(SysExceptionTest, WhatComesBehindTheDestructor) {
  EXPECT_EQ(2U, SlotOf(&SysException::what));
}

TEST(SysExceptionTest, ACopyKeepsCodeStackAndMessage) {
  const SysException original(5);
  const SysException copy(original);
  EXPECT_EQ(5, copy.code);
  EXPECT_EQ(original.stack, copy.stack);
  EXPECT_STREQ("errno 5\n", copy.what());
}

TEST(SysExceptionTest, FieldsStandInOrder) {
  const SysException e(5);
  const auto offsetIn = [&e](const void* field) {
    return static_cast<const char*>(field) - reinterpret_cast<const char*>(&e);
  };
  EXPECT_EQ(8, offsetIn(&e.code));
  EXPECT_EQ(16, offsetIn(&e.stack));
  EXPECT_EQ(48, offsetIn(&e.message));
}

TEST(SysExceptionTest, TheCommonBaseSaysWhatEveryExceptionSays) {
  EXPECT_STREQ(std::exception().what(), Exception().what());
  EXPECT_EQ(sizeof(std::exception), sizeof(Exception));
}

[[gnu::noinline]] SysException ThrownDeepDown() {
  return SysException(14);
}

TEST(SysExceptionTest, TheStackHasALineAFrameAndLeavesItsMakerOut) {
  const std::string stack = ThrownDeepDown().stack;
  ASSERT_EQ(0U, stack.find("stack trace:\n"));
  EXPECT_EQ('\n', stack.back());
  EXPECT_EQ(std::string::npos, stack.find("get_backtrace"));
  std::size_t frames = 0;
  for (std::size_t at = stack.find('\n'); at + 1 < stack.size(); at = stack.find('\n', at + 1)) {
    EXPECT_EQ("  ", stack.substr(at + 1, 2));
    EXPECT_NE(' ', stack[at + 3]);
    ++frames;
  }
  EXPECT_GE(frames, 3U);
  EXPECT_LE(frames, 63U);
}

[[gnu::noinline]] SysException Deeper(int depth) {
  if (depth == 0) {
    return SysException(14);
  }
  SysException e = Deeper(depth - 1);
  e.code += depth;  // keeps the call from being turned into a loop
  return e;
}

TEST(SysExceptionTest, TheStackEndsAtSixtyThreeFrames) {
  const std::string stack = Deeper(200).stack;
  EXPECT_EQ(64, std::count(stack.begin(), stack.end(), '\n')) << "the heading and 63 frames";
}

TEST(SysExceptionTest, NamesOfTheExecutableAreDemangled) {
  // The test program exports its symbols, so that the frame of the constructor has a name.
  const std::string stack = SysException(14).stack;
  EXPECT_NE(std::string::npos, stack.find("Zefs::SysException::SysException(int)+0x")) << stack;
}

}  // namespace
