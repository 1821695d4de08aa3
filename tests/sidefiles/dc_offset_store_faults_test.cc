#include <algorithm>
#include <cerrno>
#include <string>
#include <vector>

#include <boost/filesystem/operations.hpp>
#include <gtest/gtest.h>

#include "sidefiles/dc_offset_store.h"
#include "tests/sidefiles/dc_offset_store_fixture.h"
#include "tests/support/fault_injection.h"

// What a failing call leaves behind, in the return codes, in the log, in memory and on file.

namespace zefs::test {
namespace {

using Lines = std::vector<std::string>;

class DcOffsetStoreFaultsTest : public DcOffsetStoreFixture {
 protected:
  const WatchCalls watch_{dir_.path().string()};
};

// ---- CheckAndStore and Write --------------------------------------------------------------------

TEST_F(DcOffsetStoreFaultsTest, FailedOpenGivesItsErrorAndKeepsTheRecords) {
  Threshold(1);
  Faults::FailNth(Call::kOpen, 1, EACCES);
  EXPECT_EQ(EACCES, Store(Wanted(1)));
  EXPECT_EQ(-1, peer_.fd());
  EXPECT_EQ(Sorted({Wanted(1)}), InMemory());
  EXPECT_EQ(
      (Lines{"0 CheckAndStore store dc offset with path_=" + path_ + ", dcoff=-1",
             "0 DcOffsetStore store dc offset with path_=" + path_ + ", return=1",
             "8 failed to open dc offset file: " + path_ + ", errno:13",
             "8 failed to open dcoffset with path_=" + path_ + ", ret=13",
             "8 CheckAndStore, failed to store dcoffset with path_=" + path_ + ", return=13"}),
      Log());
  EXPECT_EQ(0, Store(Wanted(2))) << "the same records go out with the next attempt";
  EXPECT_EQ(Sorted({Wanted(1), Wanted(2)}), Sorted(OnFile()));
}

TEST_F(DcOffsetStoreFaultsTest, MissingDirectoryIsAFailedOpen) {
  DcOffsetStore store((dir_ / "missing/dcoffset").string(), false, kOffsetStoreName,
                      kOffsetStoreTmpSuffix);
  EXPECT_EQ(ENOENT, store.Open());
}

TEST_F(DcOffsetStoreFaultsTest, FailedWriteKeepsTheRecordsAndAnEqualOneTriggersTheNextAttempt) {
  Threshold(2);
  Store(Wanted(1));
  Log();
  Faults::FailNth(Call::kWrite, 1, ENOSPC);
  EXPECT_EQ(-1, Store(Wanted(2)));
  EXPECT_EQ(Sorted({Wanted(1), Wanted(2)}), InMemory());
  const Lines lines = Log();
  ASSERT_EQ(6U, lines.size());
  EXPECT_EQ(
      "0 fd_=" + std::to_string(peer_.fd()) + ", path_=" + path_ + ", write=112, size=2, ret=-1",
      lines[3]);
  EXPECT_EQ("8 failed to write dc offset with path_=" + path_ + ", write=112, return=-1", lines[4]);
  EXPECT_EQ("8 CheckAndStore, failed to store dcoffset with path_=" + path_ + ", return=-1",
            lines[5]);
  EXPECT_EQ(0, Store(Wanted(2)));
  EXPECT_EQ(Sorted({Wanted(1), Wanted(2)}), Sorted(OnFile()));
  EXPECT_TRUE(InMemory().empty());
}

TEST_F(DcOffsetStoreFaultsTest, BatchIsOneWriteAndOneSync) {
  Threshold(50);
  for (int i = 1; i <= 50; ++i) {
    Store(Wanted(i));
  }
  EXPECT_EQ((std::vector<std::size_t>{50 * kDcOffsetRecordBytes}), Faults::WriteSizes());
  EXPECT_EQ(1, Faults::Count(Call::kFsync));
  EXPECT_EQ(1, Faults::Count(Call::kOpen));
  EXPECT_EQ(0, Faults::Count(Call::kClose));
}

TEST_F(DcOffsetStoreFaultsTest, PartlyWrittenBatchStaysAndItsRecordsComeTwice) {
  Threshold(2);
  Store(Wanted(1));
  Log();
  Faults::ShortWriteNth(1, kDcOffsetRecordBytes);
  Faults::FailNth(Call::kWrite, 2, ENOSPC);
  EXPECT_EQ(-1, Store(Wanted(2)));
  EXPECT_EQ(
      (Lines{"8 failed to write dc offset with path_=" + path_ + ", write=112, return=56",
             "8 CheckAndStore, failed to store dcoffset with path_=" + path_ + ", return=-1"}),
      Failures());
  EXPECT_EQ(kDcOffsetRecordBytes, ReadBytes(path_).size());
  const std::vector<DCOffset> first = OnFile();
  EXPECT_EQ(0, Store(Wanted(2)));
  std::vector<DCOffset> expected{Wanted(1), Wanted(2)};
  expected.insert(expected.end(), first.begin(), first.end());
  EXPECT_EQ(Sorted(expected), Sorted(OnFile()));
}

TEST_F(DcOffsetStoreFaultsTest, RecordTornInTheMiddleStaysAndShiftsThoseAfterIt) {
  Threshold(1);
  Faults::ShortWriteNth(1, 20);
  Faults::FailNth(Call::kWrite, 2, ENOSPC);
  EXPECT_EQ(-1, Store(Wanted(1)));
  EXPECT_EQ(20U, ReadBytes(path_).size());
  EXPECT_EQ(0, store_.Flush());
  Bytes expected = FileOf({Wanted(1)});
  expected.resize(20);
  const Bytes whole = FileOf({Wanted(1)});
  expected.insert(expected.end(), whole.begin(), whole.end());
  EXPECT_EQ(expected, ReadBytes(path_));
  EXPECT_EQ(64U + 1, OnFile().front().dcid) << "what arrived of the torn one";
  EXPECT_NE(FieldsOf(Wanted(1)), FieldsOf(OnFile().front()));
}

TEST_F(DcOffsetStoreFaultsTest, ShortWriteAloneIsNoFailure) {
  Threshold(1);
  Faults::ShortWriteNth(1, 20);
  EXPECT_EQ(0, Store(Wanted(1)));
  EXPECT_EQ(FileOf({Wanted(1)}), ReadBytes(path_));
}

TEST_F(DcOffsetStoreFaultsTest, FailedSyncGivesItsResultWithoutALineOfItsOwn) {
  Threshold(1);
  Faults::FailNth(Call::kFsync, 1, EIO);
  EXPECT_EQ(-1, Store(Wanted(1)));
  EXPECT_EQ(
      (Lines{"8 CheckAndStore, failed to store dcoffset with path_=" + path_ + ", return=-1"}),
      Failures());
  EXPECT_EQ(Sorted({Wanted(1)}), InMemory());
  EXPECT_NE(-1, peer_.fd());
  EXPECT_EQ(0, store_.Flush());
  EXPECT_EQ(FileOf({Wanted(1), Wanted(1)}), ReadBytes(path_)) << "once for each attempt";
}

// ---- Flush, UpdatePath, destruction -------------------------------------------------------------

TEST_F(DcOffsetStoreFaultsTest, FlushLogsAFailedWriteButReturnsTheSync) {
  Store(Wanted(1));
  Faults::FailNth(Call::kWrite, 1, ENOSPC);
  EXPECT_EQ(0, store_.Flush());
  EXPECT_EQ((Lines{"8 failed to write dc offset with path_=" + path_ + ", write=56, return=-1",
                   "8 failed to flush dc offset with path_=" + path_ + ", return=-1"}),
            Failures());
  EXPECT_EQ(Sorted({Wanted(1)}), InMemory());
  EXPECT_EQ(-1, peer_.fd());
  EXPECT_EQ(1, Faults::Count(Call::kFsync));
}

TEST_F(DcOffsetStoreFaultsTest, FlushThatCannotOpenFailsInTheSyncOfNoFile) {
  Store(Wanted(1));
  Faults::FailNth(Call::kOpen, 1, ENOENT);
  EXPECT_EQ(-1, store_.Flush());
  EXPECT_EQ((Lines{"8 failed to open dc offset file: " + path_ + ", errno:2",
                   "8 failed to open dcoffset with path_=" + path_ + ", ret=2",
                   "8 failed to flush dc offset with path_=" + path_ + ", return=2",
                   "8 failed to fsync dc offset with path_=" + path_ + ", return=-1"}),
            Failures());
  EXPECT_EQ(Sorted({Wanted(1)}), InMemory());
}

TEST_F(DcOffsetStoreFaultsTest, FlushSyncsTwiceAndKeepsTheRecordsOnlyForTheFirst) {
  Store(Wanted(1));
  Faults::FailNth(Call::kFsync, 1, EIO);
  EXPECT_EQ(0, store_.Flush());
  EXPECT_EQ((Lines{"8 failed to flush dc offset with path_=" + path_ + ", return=-1"}), Failures());
  EXPECT_EQ(Sorted({Wanted(1)}), InMemory());
  Faults::FailNth(Call::kFsync, 2, EIO);
  EXPECT_EQ(-1, store_.Flush());
  EXPECT_EQ((Lines{"8 failed to fsync dc offset with path_=" + path_ + ", return=-1"}), Failures());
  EXPECT_TRUE(InMemory().empty());
  EXPECT_EQ(-1, peer_.fd());
}

TEST_F(DcOffsetStoreFaultsTest, FailedCloseChangesNothing) {
  Store(Wanted(1));
  Faults::FailNth(Call::kClose, 1, EIO);
  EXPECT_EQ(0, store_.Flush());
  EXPECT_EQ(-1, peer_.fd());
  EXPECT_EQ(Lines(), Failures());
}

TEST_F(DcOffsetStoreFaultsTest, UpdatePathGoesOnAfterAFailedFlushWithTheRecords) {
  const std::string moved = (dir_ / "moved").string();
  Store(Wanted(1));
  Faults::FailNth(Call::kOpen, 1, EROFS);
  store_.UpdatePath(moved);
  const Lines failures = Failures();
  ASSERT_EQ(5U, failures.size());
  EXPECT_EQ("8 UpdatePath, failed to flush path_=" + path_ + ", return=-1", failures.back());
  EXPECT_EQ(moved, peer_.path());
  EXPECT_EQ(0, store_.Flush());
  EXPECT_EQ(FileOf({Wanted(1)}), ReadBytes(moved));
  EXPECT_FALSE(Exists(path_));
}

TEST_F(DcOffsetStoreFaultsTest, UpdatePathAfterAFailedWriteAndAGoodSyncIsNoFailureOfItsOwn) {
  const std::string moved = (dir_ / "moved").string();
  Store(Wanted(1));
  Faults::FailNth(Call::kWrite, 1, ENOSPC);
  store_.UpdatePath(moved);
  EXPECT_EQ((Lines{"8 failed to write dc offset with path_=" + path_ + ", write=56, return=-1",
                   "8 failed to flush dc offset with path_=" + path_ + ", return=-1"}),
            Failures());
  EXPECT_EQ(moved, peer_.path());
  EXPECT_EQ(-1, peer_.fd());
  EXPECT_EQ(Sorted({Wanted(1)}), InMemory());
  EXPECT_EQ(0, store_.Flush());
  EXPECT_EQ(FileOf({Wanted(1)}), ReadBytes(moved));
  EXPECT_EQ(Bytes(), ReadBytes(path_)) << "made before the write failed";
}

TEST_F(DcOffsetStoreFaultsTest, FlushOfNothingMakesNoCallAtAll) {
  ASSERT_EQ(0, store_.Open());
  const int fd = peer_.fd();
  EXPECT_EQ(0, store_.Flush());
  EXPECT_EQ(fd, peer_.fd());
  for (const Call call : {Call::kWrite, Call::kFsync, Call::kClose}) {
    EXPECT_EQ(0, Faults::Count(call));
  }
  EXPECT_EQ(1, Faults::Count(Call::kOpen));
}

TEST_F(DcOffsetStoreFaultsTest, DestructionWithAFailingDiskLogsAndEnds) {
  {
    DcOffsetStore store(path_, false, kOffsetStoreName, kOffsetStoreTmpSuffix);
    Store(store, Wanted(1));
    Faults::FailNth(Call::kWrite, 1, EIO, true);
  }
  EXPECT_EQ((Lines{"8 failed to write dc offset with path_=" + path_ + ", write=56, return=-1",
                   "8 failed to flush dc offset with path_=" + path_ + ", return=-1"}),
            Failures());
  EXPECT_EQ(Faults::Count(Call::kOpen), Faults::Count(Call::kClose));
}

// ---- Read ---------------------------------------------------------------------------------------

TEST_F(DcOffsetStoreFaultsTest, FileThatCannotBeOpenedIsReportedWithTheNumberZero) {
  WriteBytes(path_, FileOf({Wanted(1)}));
  Faults::FailNth(Call::kOpen, 1, EACCES);
  std::vector<DCOffset> out{Wanted(2)};
  EXPECT_EQ(-1, store_.Read(&out));
  EXPECT_TRUE(out.empty());
  EXPECT_EQ((Lines{"0 DcOffsetStore::Read, file: " + path_,
                   "8 failed to open dcoffset, path=" + path_ + ", ret=0"}),
            Log());
  EXPECT_EQ(FileOf({Wanted(1)}), ReadBytes(path_));
}

TEST_F(DcOffsetStoreFaultsTest, FailedRenameGivesTheListAndKeepsTheFile) {
  WriteBytes(path_, FileOf({Wanted(1)}));
  Faults::FailNth(Call::kRename, 1, EXDEV);
  std::vector<DCOffset> out;
  EXPECT_EQ(-1, store_.Read(&out));
  EXPECT_EQ(ListOf({Wanted(1)}), ListOf(out));
  EXPECT_EQ(
      (Lines{"0 DcOffsetStore::Read, file: " + path_, "1 DcOffsetStore::Destory, file: " + path_,
             "8 failed to rename file " + path_ + " to " + aside_ + ", ret=-1"}),
      Log());
  EXPECT_FALSE(Exists(aside_));
  EXPECT_EQ(0, store_.Read(&out));
  EXPECT_EQ(ListOf({Wanted(1)}), ListOf(out)) << "the next list has them again";
}

TEST_F(DcOffsetStoreFaultsTest, ReadsAskForAWholeChunk) {
  WriteBytes(path_, FileOf(std::vector<DCOffset>(32769, Wanted(1))));
  std::vector<DCOffset> out;
  EXPECT_EQ(0, store_.Read(&out));
  EXPECT_EQ(32769U, out.size());
  // One full chunk; the rest and the end of the file; the end of the file once more.
  EXPECT_EQ((std::vector<std::size_t>{1835008, 1835008, 1834952, 1835008}), Faults::ReadSizes());
}

TEST_F(DcOffsetStoreFaultsTest, FailedFirstReadIsAsAnEmptyFile) {
  WriteBytes(path_, FileOf({Wanted(1)}));
  Faults::FailNth(Call::kRead, 1, EIO);
  std::vector<DCOffset> out;
  EXPECT_EQ(0, store_.Read(&out));
  EXPECT_TRUE(out.empty());
  EXPECT_FALSE(Exists(path_));
  EXPECT_EQ("0 no valid data in dc offset file " + path_ + ", remove it.", Log().back());
}

TEST_F(DcOffsetStoreFaultsTest, FailedLaterReadEndsTheList) {
  const std::vector<DCOffset> records(32769, Wanted(1));
  WriteBytes(path_, FileOf(records));
  Faults::FailNth(Call::kRead, 2, EIO);
  std::vector<DCOffset> out;
  EXPECT_EQ(0, store_.Read(&out));
  EXPECT_EQ(32768U, out.size());
  EXPECT_EQ("0 Total offset in rec:32768, dcoffset:32768", Log().back());
  EXPECT_EQ(FileOf(records), ReadBytes(aside_));
}

TEST_F(DcOffsetStoreFaultsTest, FileThatCannotBeRemovedThrowsAndTheStoreGoesOn) {
  WriteBytes(path_, {});
  Faults::FailNth(Call::kUnlink, 1, EPERM);
  std::vector<DCOffset> out;
  EXPECT_THROW(store_.Read(&out), boost::filesystem::filesystem_error);
  EXPECT_EQ(0, store_.Read(&out)) << "the lock was released";
  EXPECT_FALSE(Exists(path_));
}

TEST_F(DcOffsetStoreFaultsTest, StatusThatCannotBeToldThrows) {
  WriteBytes((dir_ / "file").string(), {});
  DcOffsetStore below(std::string(300, 'x'), false, kOffsetStoreName, kOffsetStoreTmpSuffix);
  std::vector<DCOffset> out{Wanted(1)};
  EXPECT_THROW(below.Read(&out), boost::filesystem::filesystem_error) << "the name is too long";
  EXPECT_EQ(1U, out.size());
  EXPECT_THROW(below.MergeDcOffset({}), boost::filesystem::filesystem_error);
}

TEST_F(DcOffsetStoreFaultsTest, StatusBeforeTheRenameThatCannotBeToldThrowsAndFreesTheLock) {
  ASSERT_EQ(0, store_.MergeDcOffset({Wanted(1)}));
  std::vector<DCOffset> out;
  Faults::FailNth(Call::kStat, 2, EACCES);
  EXPECT_THROW(store_.Read(&out), boost::filesystem::filesystem_error);
  EXPECT_EQ(1U, out.size());
  EXPECT_FALSE(Exists(aside_));
  EXPECT_EQ(0, store_.Read(&out)) << "the lock is free, and the file still there";
  EXPECT_EQ(1U, out.size());
  EXPECT_TRUE(Exists(aside_));
}

TEST_F(DcOffsetStoreFaultsTest, AFileThatIsGoneBeforeTheRenameIsNotRenamed) {
  ASSERT_EQ(0, store_.MergeDcOffset({Wanted(1)}));
  std::vector<DCOffset> out;
  Faults::FailNth(Call::kStat, 2, ENOENT);
  EXPECT_EQ(0, store_.Read(&out));
  EXPECT_EQ(1U, out.size());
  EXPECT_FALSE(Exists(aside_));
}

TEST_F(DcOffsetStoreFaultsTest, MergeThatCannotSyncLeavesTheListOut) {
  WriteBytes(aside_, {1});
  Faults::FailNth(Call::kFsync, 1, EIO);
  EXPECT_EQ(-1, store_.MergeDcOffset({Wanted(1)}));
  EXPECT_EQ((Lines{"8 Failed to store dcoffset, ret=-1"}), Failures());
  EXPECT_TRUE(Exists(aside_));
}

// ---- MergeDcOffset ------------------------------------------------------------------------------

TEST_F(DcOffsetStoreFaultsTest, MergeThatCannotWriteLeavesTheListOut) {
  WriteBytes(aside_, {1});
  Faults::FailNth(Call::kWrite, 1, ENOSPC);
  EXPECT_EQ(-1, store_.MergeDcOffset({Wanted(1)}));
  EXPECT_EQ((Lines{"8 failed to write dc offset with path_=" + path_ + ", write=56, return=-1",
                   "8 Failed to store dcoffset, ret=-1"}),
            Failures());
  EXPECT_TRUE(Exists(aside_));
  store_.Destory();
  Faults::FailNth(Call::kOpen, 1, EMFILE);
  EXPECT_EQ(EMFILE, store_.MergeDcOffset({Wanted(1)}));
  EXPECT_EQ("8 Failed to store dcoffset, ret=24", Failures().back());
  EXPECT_TRUE(Exists(aside_));
  EXPECT_EQ(0, store_.MergeDcOffset({Wanted(1)}));
  EXPECT_FALSE(Exists(aside_));
  EXPECT_EQ(FileOf({Wanted(1)}), ReadBytes(path_));
}

TEST_F(DcOffsetStoreFaultsTest, ListThatCannotBeRemovedThrowsAfterTheRecordsAreStored) {
  WriteBytes(aside_, {1});
  Faults::FailNth(Call::kUnlink, 1, EPERM);
  EXPECT_THROW(store_.MergeDcOffset({Wanted(1)}), boost::filesystem::filesystem_error);
  EXPECT_TRUE(Exists(aside_));
  EXPECT_EQ(FileOf({Wanted(1)}), ReadBytes(path_));
  EXPECT_EQ(0, store_.MergeDcOffset({}));
  EXPECT_FALSE(Exists(aside_));
}

// ---- every call, one after the other ------------------------------------------------------------

/// A store's life with one call failing: what was stored must be with the host, on file or in
/// memory in the end, be it more than once.
void LiveThrough(const std::string& path, std::vector<DCOffset>* received) {
  DcOffsetStore store(path, true, kOffsetStoreName, kOffsetStoreTmpSuffix);
  const auto handOut = [&] {
    std::vector<DCOffset> list;
    try {
      store.Read(&list);
      received->insert(received->end(), list.begin(), list.end());
      for (DCOffset& record : list) {
        record.dcOffset = record.key % 2 == 0 ? 4096 : -1;
      }
      store.MergeDcOffset(list);
    } catch (const boost::filesystem::filesystem_error&) {
      // The list is in `received` already, or was never read.
    }
  };
  for (int key = 1; key <= 6; ++key) {
    const DCOffset record = Wanted(key);
    store.CheckAndStore(record.key, record.dcid, record.fp, -1);
  }
  handOut();
  store.Flush();
  store.UpdatePath(path + "2");
  store.CheckAndStore(7, 71, Fp(8), -1);
  store.Flush();
  handOut();
  Faults::Disarm();
  store.Flush();
  handOut();
  store.UpdatePath(path);
  handOut();
}

TEST_F(DcOffsetStoreFaultsTest, NoFailingCallLosesARecord) {
  Threshold(4);
  for (const Call call : {Call::kOpen, Call::kWrite, Call::kFsync, Call::kClose, Call::kRename,
                          Call::kUnlink, Call::kStat}) {
    const int fired = Faults::UntilNoneFires([&](int nth) {
      SCOPED_TRACE("call " + std::to_string(static_cast<int>(call)) + ", " + std::to_string(nth));
      for (const auto& entry : boost::filesystem::directory_iterator(dir_.path())) {
        boost::filesystem::remove(entry.path());
      }
      std::vector<DCOffset> received;
      Faults::FailNth(call, nth, EIO);
      LiveThrough(path_, &received);
      const std::vector<Fields> seen = Sorted(received);
      for (int key = 1; key <= 7; ++key) {
        EXPECT_TRUE(std::binary_search(seen.begin(), seen.end(), FieldsOf(Wanted(key)))) << key;
      }
      EXPECT_FALSE(Exists(aside_));
    });
    RecordProperty("call" + std::to_string(static_cast<int>(call)), fired);
    EXPECT_GT(fired, 0) << static_cast<int>(call);
    Log();
  }
}

}  // namespace
}  // namespace zefs::test
