#include "refhost/check/plain_copies.h"

#include <limits>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

#include "refhost/store/store_error.h"
#include "tests/refhost/store/store_fixture.h"

namespace zefs::refhost {
namespace {

using test::TempDir;

class Copies : public ::testing::Test {
 protected:
  Copies() : copies((dir / "copies").string()) {}

  std::string ReadAll(const PlainCopies::Copy& copy) const {
    std::string bytes(static_cast<std::size_t>(copy.size()) + 10, '?');
    bytes.resize(copies.Read(copy, 0, bytes.data(), bytes.size()));
    return bytes;
  }
  void Cut(std::int64_t size, PlainCopies::Copy* copy) {
    copies.Apply({Change::Kind::kTruncate, size, ""}, copy);
  }

  TempDir dir;
  PlainCopies copies;
};

TEST_F(Copies, LieSideBySide) {
  PlainCopies::Copy a = copies.Begin(5000);
  PlainCopies::Copy b = copies.Begin(10);
  PlainCopies::Copy empty = copies.Begin(0);
  PlainCopies::Copy c = copies.Begin(3);
  copies.Write(0, std::string(10, 'b'), &b);
  copies.Write(0, "ccc", &c);
  copies.Write(0, std::string(5000, 'a'), &a);
  EXPECT_EQ(std::string(5000, 'a'), ReadAll(a));
  EXPECT_EQ(std::string(10, 'b'), ReadAll(b));
  EXPECT_EQ("", ReadAll(empty));
  EXPECT_EQ("ccc", ReadAll(c));
}

TEST_F(Copies, GapsAreZerosEvenWhereOldBytesLay) {
  PlainCopies::Copy copy = copies.Begin(100);
  copies.Write(0, "0123456789", &copy);
  Cut(3, &copy);
  EXPECT_EQ("012", ReadAll(copy));
  copies.Apply({Change::Kind::kWrite, 6, "x"}, &copy);
  EXPECT_EQ(std::string("012\0\0\0x", 7), ReadAll(copy));
  Cut(4, &copy);
  Cut(8, &copy);
  EXPECT_EQ(std::string("012\0\0\0\0\0", 8), ReadAll(copy));
}

TEST_F(Copies, OutgrowingTheRoomChangesNothing) {
  PlainCopies::Copy copy = copies.Begin(4);
  copies.Write(0, "1234", &copy);
  EXPECT_THROW(copies.Write(4, "5", &copy), std::length_error);
  EXPECT_THROW(Cut(5, &copy), std::length_error);
  EXPECT_EQ("1234", ReadAll(copy));
}

TEST_F(Copies, WhatReachesBeyondTheLargestOffsetDoesNotFit) {
  constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();
  EXPECT_FALSE(copies.Fits(kMax));
  EXPECT_TRUE(copies.Fits(kMax / 2));
  copies.Begin(kMax / 2);
  EXPECT_TRUE(copies.Fits(kMax / 2 - 3 * kCopyAlignment));
  EXPECT_FALSE(copies.Fits(kMax / 2 + 1));
  copies.Begin(kMax / 2 - 3 * kCopyAlignment);
  EXPECT_FALSE(copies.Fits(3 * kCopyAlignment));
  EXPECT_TRUE(copies.Fits(0));
}

TEST_F(Copies, ReadBehindTheEndGivesNothing) {
  PlainCopies::Copy copy = copies.Begin(4);
  copies.Write(0, "1234", &copy);
  char byte = '?';
  EXPECT_EQ(0U, copies.Read(copy, 4, &byte, 1));
  EXPECT_EQ(0U, copies.Read(copy, 100, &byte, 1));
}

TEST_F(Copies, ScratchFileThatIsThereIsNotTouched) {
  EXPECT_THROW(PlainCopies((dir / "copies").string()), StoreError);
}

}  // namespace
}  // namespace zefs::refhost
