// Every call of a merge, and of the questions about references, fails in turn.

#include <cerrno>
#include <iostream>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>

#include "tests/persistent/merge_fixture.h"
#include "tests/support/fault_injection.h"
#include "tests/table/code_of.h"

namespace zefs::test {
namespace {

using testing::IsEmpty;
using testing::Not;

using Dcids = std::vector<std::pair<unsigned long, unsigned long>>;
using DcidMap = std::unordered_map<unsigned long, unsigned long>;

/// A code that the call may well fail with.
int CodeFor(Call call) {
  switch (call) {
    case Call::kMdbTxnBegin:
      return MDB_READERS_FULL;
    case Call::kMdbTxnCommit:
      return ENOSPC;
    case Call::kMdbCursorPut:
    case Call::kMdbPut:
      return MDB_MAP_FULL;
    case Call::kMdbCursorGet:
    case Call::kMdbStat:
      return MDB_CORRUPTED;
    case Call::kOpen:
      return EMFILE;
    default:
      return call < Call::kMdbEnvCreate ? EIO : ENOMEM;
  }
}

class MergeAnyFaultTest : public MergeTest {
 protected:
  /// A merged table with a bloom file, and on it what the next merge is about.
  void Prepare() {
    if (table_ != nullptr) {
      Close();
    }
    boost::filesystem::remove_all(Directory());
    Set(&Config::persistBloom, std::uint8_t{1});
    Set(&Config::mergeCommitBatchSize, 2U);
    Set(&Config::mergeCommitCountThreshold, 0U);
    LoadBoth({Stored(0, 100, 70), Stored(100, 150, 71), Stored(200, 210, 72)},
             {Stored(40, 60, 80), Stored(300, 310, 81)});
    StoreOldFilter("bloom");
    StoreOldFilter("bloom.merge");
    expected_ = Walk(table());
    Lines();
  }

  /// A filter of an earlier merge: it denies what is in the small database now.
  void StoreOldFilter(const std::string& name) {
    BloomFilter filter(16, 0.02);
    filter.Insert(DigestOf(70));
    filter.Insert(DigestOf(71));
    filter.Insert(DigestOf(72));
    DcidMap refs = {{70, 100}, {71, 50}, {72, 10}};
    Aldenta::Qnd::Morene::Zefs::BloomPersist file(Path(name), false);
    ASSERT_EQ(0, file.Reset(false));
    ASSERT_EQ(0, file.StoreBloom(&filter, &refs));
  }

  /// The filter answers yes for whatever is stored.
  void ExpectNothingDenied() {
    Dcids dcids;
    std::unique_ptr<BloomFilter> filter;
    table().GetDCIDAndBloomFilter(&dcids, &filter);
    for (const LMDBContext* db : peer().dbChain()) {
      for (const PlainRecord& record : Extents(*db)) {
        PlainDigest fp;
        std::memcpy(fp.data(), record.value.data() + 16, fp.size());
        EXPECT_TRUE(filter->Contains(fp)) << record.key;
      }
    }
  }

  /// What holds after any merge that a fault has hit. True if the table has kept its databases.
  bool CheckAfter() {
    EXPECT_FALSE(peer().merging());
    EXPECT_EQ(Held::kNot, TableLock());
    EXPECT_EQ(0, MapsOf("mergedb"));
    if (!peer().smallDb().opened || !peer().fullDb().opened) {
      Close();
      Load();
      EXPECT_EQ(expected_, Walk(table())) << "nothing is lost";
      return false;
    }
    EXPECT_EQ(expected_, Walk(table())) << "readers are not affected";
    ExpectNothingDenied();
    return true;
  }

  /// The next flush starts a merge, and that succeeds.
  void CheckNext() {
    Lines();
    WriteKnown(1000, 1010, Oid(99, 9));
    Flush();
    peer().WaitingForMerge();
    EXPECT_THAT(Lines(kLogFailure), IsEmpty());
    ExpectNoMerge();
    expected_.emplace_back("[1000, 1010) 99 0 -3");
    EXPECT_EQ(expected_, Walk(table()));
    ExpectNothingDenied();
  }

  /// Fails each call of `merge` in turn. Returns how many there were.
  int FailEverywhere(const std::function<void()>& merge) {
    int points = 0;
    int switches = 0;
    const WatchCalls watch(dir_.path().string());
    for (std::size_t kind = 0; kind < kCalls; ++kind) {
      const auto call = static_cast<Call>(kind);
      points += Faults::UntilNoneFires([&](int nth) {
        SCOPED_TRACE("kind " + std::to_string(kind) + ", call " + std::to_string(nth));
        Prepare();
        Faults::FailNth(call, nth, CodeFor(call));
        merge();
        Faults::Disarm();
        if (Faults::Fired() && call >= Call::kMdbEnvCreate && call != Call::kMdbStat) {
          EXPECT_THAT(Lines(kLogRare), Not(IsEmpty())) << "a failure is told";
        }
        switches += CheckAfter() ? 0 : 1;
        CheckNext();
      });
    }
    std::cout << "calls of a merge that failed: " << points << ", of which " << switches
              << " took a database away\n";
    RecordProperty("points", points);
    return points;
  }

  std::vector<std::string> expected_;
};

TEST_F(MergeAnyFaultTest, ThatAThreadRuns) {
  EXPECT_GT(FailEverywhere([this] {
              peer().StartMergeThread();
              peer().WaitingForMerge();
            }),
            60);
}

TEST_F(MergeAnyFaultTest, ThatACallerRuns) {
  EXPECT_GT(FailEverywhere([this] {
              std::thread([this] { CodeOf([this] { peer().MergeAndSwitch(); }); }).join();
            }),
            60);
}

// --- references --------------------------------------------------------------------------------

class ReferencesFaultTest : public MergeAnyFaultTest {
 protected:
  static constexpr Call kWalkCalls[] = {Call::kMdbTxnBegin, Call::kMdbCursorOpen,
                                        Call::kMdbCursorGet};

  /// The line of a failed call of a walk.
  std::string LineOf(Call call) const {
    const std::string code = std::to_string(CodeFor(call));
    if (call == Call::kMdbTxnBegin) {
      return "8 Failed to open transaction for db " + Directory().string() + ", return value is " +
             code;
    }
    return call == Call::kMdbCursorOpen
               ? "8 Failed to create a cursor, return value is " + code
               : "8 Failed to read a cursor for generating unique dcid list, return value is " +
                     code;
  }

  /// Fails each call of a walk in turn; `ask` throws then, and works the next time.
  int FailWalks(const std::function<void()>& ask) {
    int points = 0;
    const WatchCalls watch(dir_.path().string());
    for (const Call call : kWalkCalls) {
      points += Faults::UntilNoneFires([&](int nth) {
        SCOPED_TRACE("kind " + std::to_string(static_cast<int>(call)) + ", call " +
                     std::to_string(nth));
        Lines();
        Faults::FailNth(call, nth, CodeFor(call));
        const int code = CodeOf(ask);
        if (Faults::Fired()) {
          EXPECT_EQ(CodeFor(call), code);
          EXPECT_THAT(Lines(kLogFailure), testing::ElementsAre(LineOf(call)));
        } else {
          EXPECT_EQ(0, code);
          EXPECT_THAT(Lines(kLogFailure), IsEmpty());
        }
        EXPECT_EQ(Held::kNot, TableLock());
      });
    }
    return points;
  }
};

TEST_F(ReferencesFaultTest, AFailedWalkOfContainersAndFingerprintsIsThrown) {
  Prepare();
  EXPECT_EQ(2 + 2 + 7, FailWalks([this] {
              DcidMap dcids;
              std::vector<PlainDigest> fps;
              table().GetDCIDAndFPs(&dcids, &fps);
              EXPECT_EQ(5U, fps.size());
            }));
}

TEST_F(ReferencesFaultTest, AFailedWalkIntoAFilterIsThrownAndTheChangeStaysToBeTold) {
  Prepare();
  boost::filesystem::remove(File("bloom"));
  Dcids dcids = {{1, 1}};
  std::unique_ptr<BloomFilter> filter;
  {
    const WatchCalls watch(dir_.path().string());
    Faults::FailNth(Call::kMdbCursorGet, 1, EIO);
    EXPECT_EQ(EIO, CodeOf([&] { table().GetDCIDAndBloomFilter(&dcids, &filter); }));
  }
  EXPECT_TRUE(dcids.empty());
  EXPECT_NE(nullptr, filter) << "as far as it got";
  EXPECT_TRUE(peer().dataChanged());
  // Two transactions count the records for the filter.
  EXPECT_EQ(4 + 4 + 7, FailWalks([&] {
              table().GetDCIDAndBloomFilter(&dcids, &filter);
              EXPECT_EQ(5U, filter->GetInsertedFingerPrints());
            }));
  EXPECT_FALSE(peer().dataChanged());
}

TEST_F(ReferencesFaultTest, AFilterForAnUnknownCountIsMadeAllTheSame) {
  Prepare();
  boost::filesystem::remove(File("bloom"));
  const WatchCalls watch(dir_.path().string());
  Faults::FailNth(Call::kMdbStat, 1, MDB_CORRUPTED);
  ExpectNothingDenied();
  EXPECT_TRUE(Faults::Fired());
  EXPECT_THAT(Lines(kLogRare),
              testing::ElementsAre("8 Failed to read mdb status, return value is -30796"));
}

TEST_F(ReferencesFaultTest, WhateverFailsAroundTheBloomFileTheAnswerIsRight) {
  int points = 0;
  const WatchCalls watch(dir_.path().string());
  for (const Call call : {Call::kOpen, Call::kRead, Call::kClose, Call::kStat, Call::kUnlink}) {
    for (const bool isBad : {false, true}) {
      points += Faults::UntilNoneFires([&](int nth) {
        SCOPED_TRACE("kind " + std::to_string(static_cast<int>(call)) + ", call " +
                     std::to_string(nth));
        Prepare();
        EXPECT_EQ(0, peer().MergeAndSwitch());
        if (isBad) {
          std::string bytes = BytesOf(File("bloom"));
          bytes.back() ^= 1;
          WriteBytes(File("bloom"), bytes);
        }
        Lines();
        Faults::FailNth(call, nth, CodeFor(call));
        ExpectNothingDenied();
        const auto lines = Lines(kLogStep);
        const bool fired = Faults::Fired();
        Faults::Disarm();
        if (fired && call == Call::kClose) {
          EXPECT_EQ(0U, lines.back().find("8 close file " + Path("bloom") +
                                          " failed, return is -1; errno is "));
        }
        if (fired && call == Call::kUnlink) {
          EXPECT_EQ("1 remove file " + Path("bloom") + ", return is -1; errno is 5", lines.front());
        }
        ExpectNothingDenied();
      });
    }
  }
  std::cout << "calls around a bloom file that failed: " << points << '\n';
  EXPECT_GE(points, 12);
}

}  // namespace
}  // namespace zefs::test
