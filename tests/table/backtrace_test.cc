#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "table/sys_exception.h"

// The lines of a stack trace, from frames that this program makes up: it stands in for the C
// library's two functions.

namespace {

std::vector<std::string> lines;

}  // namespace

extern "C" int backtrace(void** buffer, int size) noexcept {
  const int count = std::min(size, static_cast<int>(lines.size()));
  std::fill_n(buffer, count, nullptr);
  return count;
}

extern "C" char** backtrace_symbols(void* const* /*buffer*/, int size) noexcept {
  // One allocation, as the caller frees only the list.
  std::size_t bytes = static_cast<std::size_t>(size) * sizeof(char*);
  for (const std::string& line : lines) {
    bytes += line.size() + 1;
  }
  auto** list = static_cast<char**>(std::malloc(bytes));
  char* text = reinterpret_cast<char*>(list + size);
  for (int i = 0; i < size; ++i) {
    list[i] = text;
    text = stpcpy(text, lines[static_cast<std::size_t>(i)].c_str()) + 1;
  }
  return list;
}

namespace {

using Aldenta::Qnd::Morene::Zefs::SysException;

/// The trace of these frames, without the first, which is the maker of the trace.
std::string TraceOf(std::vector<std::string> frames) {
  frames.insert(frames.begin(), "first(frame+0x1) [0x1]");
  lines = std::move(frames);
  std::string stack = SysException(1).stack;
  const std::string heading = "stack trace:\n";
  EXPECT_EQ(heading, stack.substr(0, heading.size()));
  return stack.substr(heading.size());
}

TEST(BacktraceTest, WithoutFramesItSaysSo) {
  lines.clear();
  EXPECT_EQ("stack trace:\n  <empty, possibly corrupt>\n", SysException(1).stack);
}

TEST(BacktraceTest, ItsOwnFrameIsLeftOut) {
  EXPECT_EQ("", TraceOf({}));
}

TEST(BacktraceTest, NamesAreDemangled) {
  EXPECT_EQ("  std::terminate()+0x1f\n", TraceOf({"prog(_ZSt9terminatev+0x1f) [0xdead]"}));
}

TEST(BacktraceTest, ANameThatIsNotMangledStaysAsItIs) {
  EXPECT_EQ("  main+0x2\n", TraceOf({"prog(main+0x2) [0xdead]"}));
  EXPECT_EQ("  +0x2\n", TraceOf({"prog(+0x2) [0xdead]"})) << "not even a name";
}

TEST(BacktraceTest, ALineOfAnotherFormStaysAsItIs) {
  EXPECT_EQ("  prog [0xdead]\n", TraceOf({"prog [0xdead]"}));
  EXPECT_EQ("  prog() [0xdead]\n", TraceOf({"prog() [0xdead]"}));
  EXPECT_EQ("  prog(main) [0xdead]\n", TraceOf({"prog(main) [0xdead]"}));
  EXPECT_EQ("  prog(main+0x1\n", TraceOf({"prog(main+0x1"}));
}

TEST(BacktraceTest, APlusBeforeTheParenthesisIsPartOfTheFileName) {
  EXPECT_EQ("  lib++.so(main) [0xdead]\n", TraceOf({"lib++.so(main) [0xdead]"}));
  EXPECT_EQ("  main+0x3\n", TraceOf({"lib++.so(main+0x3) [0xdead]"}));
}

TEST(BacktraceTest, LongNamesGrowTheBufferForTheFramesBehindThem) {
  const std::string name(600, 'n');
  EXPECT_EQ("  " + name + "()+0x1\n  std::terminate()+0x2\n",
            TraceOf({"prog(_Z600" + name + "v+0x1) [1]", "prog(_ZSt9terminatev+0x2) [2]"}));
}

}  // namespace
