// What a write does to the run of extents that was fetched ahead.

#include <gmock/gmock.h>

#include "tests/persistent/extent_cache_fixture.h"

namespace {

using namespace Aldenta::Qnd::Morene::Zefs;
using testing::IsEmpty;
using zefs::test::Oid;
using zefs::test::Written;

class ExtentCachePrefetchTest : public zefs::test::ExtentCacheTest {
 protected:
  ExtentCachePrefetchTest() { Set(&FileSystemDaemonConfig::prefetchEnabled, 1); }

  /// Makes the prefetched run consist of these ranges.
  void SetRun(const std::vector<std::pair<long, long>>& ranges) {
    peer().prefetchExts().clear();
    for (const auto& [sOff, eOff] : ranges) {
      ExtLMDB ext;
      ext.setSOff(sOff);
      ext.setEOff(eOff);
      peer().prefetchExts().push_back(ext);
    }
  }

  /// Starts and ends of the run that is left.
  std::vector<std::pair<long, long>> Run() {
    std::vector<std::pair<long, long>> ranges;
    for (auto& ext : peer().prefetchExts()) {
      ranges.emplace_back(ext.getSOff(), ext.getEOff());
    }
    return ranges;
  }

  const ObjectID oid_ = Oid(70);
  const std::vector<std::pair<long, long>> run_{{20, 30}, {30, 40}, {50, 60}};
};

struct Placement {
  const char* where;
  long sOff;
  long eOff;
  bool drops;
};

constexpr Placement kPlacements[] = {
    {"before", 0, 10, false},
    {"up to the start", 0, 20, false},
    {"over the first byte", 0, 21, true},
    {"over the start", 10, 35, true},
    {"over the start, up to the last byte", 10, 59, true},
    {"over all, from before", 10, 60, true},
    {"over all and beyond", 10, 70, true},
    {"the first byte", 20, 21, true},
    {"the first extent", 20, 30, true},
    {"from the start, all but the last byte", 20, 59, true},
    {"all", 20, 60, true},
    {"from the start and beyond", 20, 70, true},
    {"inside the first extent", 21, 29, false},
    {"a middle extent", 30, 40, false},
    {"the hole", 40, 50, false},
    {"inside the hole", 42, 48, false},
    {"all but the first and the last byte", 21, 59, false},
    {"up to the last but one byte", 50, 59, false},
    {"all but the first byte", 21, 60, true},
    {"the last extent", 50, 60, true},
    {"the last byte", 59, 60, true},
    {"from inside and beyond", 21, 70, true},
    {"the last byte and beyond", 59, 61, true},
    {"from the end", 60, 70, false},
    {"behind", 65, 70, false},
};

TEST_F(ExtentCachePrefetchTest, AWriteOverTheFirstStartOrOverTheLastEndDropsTheRun) {
  for (const auto& at : kPlacements) {
    for (const std::int32_t enabled : {1, -1, 7}) {
      Set(&FileSystemDaemonConfig::prefetchEnabled, enabled);
      SetRun(run_);
      EXPECT_EQ(0, table().insert(at.sOff, at.eOff, &oid_, 0, 0, nullptr, -1, nullptr));
      if (at.drops) {
        EXPECT_THAT(Run(), IsEmpty()) << at.where;
      } else {
        EXPECT_EQ(run_, Run()) << at.where;
      }
    }
  }
}

TEST_F(ExtentCachePrefetchTest, TheRunStaysWhileItIsSwitchedOff) {
  Set(&FileSystemDaemonConfig::prefetchEnabled, 0);
  SetRun(run_);
  for (const auto& at : kPlacements) {
    EXPECT_EQ(0, table().insert(at.sOff, at.eOff, &oid_, 0, 0, nullptr, -1, nullptr));
    EXPECT_EQ(run_, Run()) << at.where;
  }
}

TEST_F(ExtentCachePrefetchTest, ARunOfOneExtentIsDroppedByAnyWriteThatReachesAnEndOfIt) {
  const struct {
    long sOff, eOff;
    bool drops;
  } kCases[] = {{20, 30, true},  {20, 21, true},  {29, 30, true},  {10, 40, true},
                {21, 29, false}, {10, 20, false}, {30, 40, false}, {25, 40, true}};
  for (const auto& at : kCases) {
    SetRun({{20, 30}});
    Write(at.sOff, at.eOff, oid_);
    EXPECT_EQ(at.drops, Run().empty()) << at.sOff << ' ' << at.eOff;
  }
}

TEST_F(ExtentCachePrefetchTest, WithoutARunAWriteIsAWrite) {
  Write(20, 30, oid_);
  EXPECT_THAT(Extents(), testing::ElementsAre(Written(20, 30, oid_)));
  EXPECT_THAT(Run(), IsEmpty());
}

TEST_F(ExtentCachePrefetchTest, AWriteOfNoBytesLeavesTheRun) {
  SetRun(run_);
  for (const long at : {10L, 20L, 40L, 59L, 60L}) {
    Write(at, at, oid_);
    Write(at, at - 1, oid_);
    EXPECT_EQ(run_, Run()) << at;
  }
}

TEST_F(ExtentCachePrefetchTest, AppendDropsTheRunAsAnyWrite) {
  SetRun(run_);
  EXPECT_EQ(0, table().append(60, 70, &oid_, 0, 0, nullptr, nullptr));
  EXPECT_EQ(run_, Run());
  EXPECT_EQ(0, table().append(59, 70, &oid_, 0, 0, nullptr, nullptr));
  EXPECT_THAT(Run(), IsEmpty());
}

TEST_F(ExtentCachePrefetchTest, TheCacheUpdateAloneLeavesTheRun) {
  SetRun(run_);
  EXPECT_EQ(0, peer().insert2Cache(0, 100, &oid_, 0, nullptr, -1));
  EXPECT_EQ(run_, Run());
}

TEST_F(ExtentCachePrefetchTest, DroppingTheRunSaysNothingAndTouchesNoCachedExtent) {
  Write(50, 60, oid_);
  SetRun(run_);
  ForgetSteps();
  Write(10, 25, oid_);
  EXPECT_THAT(Run(), IsEmpty());
  EXPECT_THAT(Extents(), testing::ElementsAre(Written(10, 25, oid_), Written(50, 60, oid_)));
  EXPECT_THAT(Lines(), testing::ElementsAre(zefs::test::WriteLine(10, 25, 0, nullptr),
                                            zefs::test::NoOverlapLine(50, 60, 10, 25)));
}

}  // namespace
