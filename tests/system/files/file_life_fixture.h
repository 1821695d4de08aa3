#pragma once

#include <exception>
#include <string>
#include <vector>

#include <boost/filesystem/operations.hpp>
#include <gtest/gtest.h>

#include "table/sys_exception.h"
#include "tests/persistent/merge_fixture.h"

namespace zefs::test {

/// A table of type "GENERIC" in whose life every file appears that a table can have.
class FileLifeTest : public MergeTest {
 protected:
  FileLifeTest() {
    TrackOffsets();
    Set(&Config::persistBloom, std::uint8_t{1});
    Set(&Config::mergeCommitBatchSize, 2U);
  }

  /// A table that is loaded from `directory`.
  CMappingLMDB& LoadFrom(const std::string& directory, const std::string& prefix = "",
                         const std::string& type = "GENERIC") {
    table_ = std::make_unique<CMappingLMDB>(&host_, type);
    EXPECT_EQ(0, table_->load(directory, false, prefix));
    return *table_;
  }

  /// Writes five extents from `start` on, some cut by others, and stores them in one flush: with a
  /// journal that goes on, unless `force`, and with records in the offset store.
  void Store(long start, bool force) {
    for (unsigned int i = 0; i < 5; ++i) {
      const long at = start + 60L * i;
      WriteNode(at, at + 100, Ready(Oid(70 + i, 0x01010101U + i), -1), 7);
    }
    Flush(force);
  }

  /// From the first load over writes, flushes, two merges, a truncate, a list of wanted offsets
  /// that goes out and comes back, and a snapshot in `snapshot`. Leaves the journal.
  void LiveIn(const std::string& directory, const std::string& snapshot,
              const std::string& prefix = "") {
    CMappingLMDB& table = LoadFrom(directory, prefix);
    EXPECT_EQ(0, table.setFileSize(5000));
    ObjectID doid = Oid(90, 0x02020202U);
    EXPECT_EQ(0, table.SetDOID(&doid));
    Store(0, true);
    Store(1000, false);
    EXPECT_EQ(0, peer().MergeAndSwitch());
    Store(50, false);
    EXPECT_EQ(0, table.truncate(1200, nullptr));
    EXPECT_EQ(0, peer().MergeAndSwitch());
    TakeOffsetsBack();
    EXPECT_EQ(0, table.Snapshot(directory, snapshot));
    Store(2000, false);
    ExpectContent();
  }

  /// The least in which all files appear that last.
  void LiveShortlyIn(const std::string& directory, const std::string& prefix) {
    LoadFrom(directory, prefix);
    Store(0, false);
    EXPECT_EQ(0, peer().MergeAndSwitch());
    Store(1000, false);
    ExpectContent();
  }

  void TakeOffsetsBack() {
    std::vector<DCOffset> wanted;
    EXPECT_EQ(0, table().GetEmptyDcOffsetList(&wanted));
    EXPECT_FALSE(wanted.empty());
    wanted.front().dcOffset = 17;
    EXPECT_EQ(0, table().BackfillDcOffset(wanted));
    Flush(false);
  }

  /// There are extents, in their order.
  void ExpectContent() {
    long last = -1;
    long count = 0;
    for (auto at = table().begin(); at != table().end(); ++at, ++count) {
      EXPECT_LE(last, at->sOff);
      last = at->eOff;
    }
    EXPECT_LE(4, count);  // the replay of a journal takes some
  }

  /// The table has moved to `to`, where the next files are made; then the next process of the host
  /// loads it and replays the journal.
  void MoveAndLeave(const std::string& from, const std::string& to) {
    boost::filesystem::rename(from, to);
    table().UpdateExtPath(to);
    Store(3000, true);
    Store(3500, false);
    Close();
  }

  /// "-" or what `operation` throws: the code of a SysException, or the words of another.
  template <typename Operation>
  static std::string Thrown(const Operation& operation) {
    try {
      operation();
    } catch (const Aldenta::Qnd::Morene::Zefs::SysException& e) {
      return std::to_string(e.code);
    } catch (const std::exception& e) {
      return e.what();
    }
    return "-";
  }
};

}  // namespace zefs::test
