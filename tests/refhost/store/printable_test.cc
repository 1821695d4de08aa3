#include "refhost/cli/printable.h"

#include <string>

#include <gtest/gtest.h>

namespace zefs::refhost {
namespace {

TEST(Printable, ShowsControlCharactersInTheirCode) {
  EXPECT_EQ("a\\x1b[31mb\\x0a\\x0d\\x7f\\x00", Printable(std::string("a\x1b[31mb\n\r\x7f\0", 11)));
  EXPECT_EQ(
      "\xc2\\x9b"
      "1m",
      Printable("\xc2\x9b"
                "1m"))
      << "a control character of two bytes";
}

TEST(Printable, LeavesAllElseAsItIs) {
  EXPECT_EQ("", Printable(""));
  EXPECT_EQ("/a b/\\c~\xc3\x9f\xff", Printable("/a b/\\c~\xc3\x9f\xff"));
}

}  // namespace
}  // namespace zefs::refhost
