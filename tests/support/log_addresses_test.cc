#include "tests/support/log_addresses.h"

#include <gtest/gtest.h>

namespace zefs::test {
namespace {

std::string Named(const std::string& line) {
  return WithAddressesNamed(line, [](const std::string& address) { return "<" + address + ">"; });
}

TEST(LogAddressesTest, EachAddressIsNamed) {
  EXPECT_EQ("node <0x12ab>, then <0xff>.", Named("node 0x12ab, then 0xff."));
  EXPECT_EQ("<0x1>", Named("0x1"));
}

TEST(LogAddressesTest, WhatOnlyLooksLikeOneStays) {
  for (const char* line : {"/tmp/zefs-test-t0xkDf/tmp.mdb", "/tmp/zefs-test-0xabcd/tmp.mdb", "10x2",
                           "0xkDf", "0xabz", "0x", ""}) {
    EXPECT_EQ(line, Named(line));
  }
}

}  // namespace
}  // namespace zefs::test
