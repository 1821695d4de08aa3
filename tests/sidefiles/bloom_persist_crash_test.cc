// A process that dies while it renews the file: the current one is the old or the new one, whole.

#include <csignal>
#include <cstdio>
#include <functional>
#include <unistd.h>

#include "tests/sidefiles/bloom_persist_fixture.h"
#include "tests/support/child_process.h"
#include "tests/support/fault_injection.h"

namespace {

using namespace zefs::test;

class BloomCrashTest : public BloomPersistFixture {
 protected:
  /// Stores the new filter in a file beside the old one and moves that over it.
  void Renew() const {
    DcidBytes udcids = newUdcids_;
    ::unlink(next_.c_str());
    BloomPersist file(next_, false);
    EXPECT_EQ(0, file.Reset(false));
    EXPECT_EQ(0, file.StoreBloom(newFilter_.get(), &udcids));
    file.CheckAndClose();
    EXPECT_EQ(0, std::rename(next_.c_str(), path_.c_str()));
  }

  /// Renews the file in a child process with the faults that `arm` sets. Whether it was killed.
  bool RenewAndDie(const std::function<void()>& arm) const {
    EXPECT_EQ(0, Store(path_, oldFilter_.get(), oldUdcids_));
    WriteBytes(next_, "left by one that died before");
    const int status = RunInChild([&] {
      Faults::OnlyBelow(dir_.path().string());
      arm();
      Renew();
    });
    const bool died = DiedBy(status, SIGKILL);
    EXPECT_TRUE(died || EndedWell(status));
    return died;
  }

  void ExpectHolds(const Loaded& loaded, const BloomFilter& filter, const DcidBytes& udcids) const {
    EXPECT_EQ(0, loaded.outcome);
    EXPECT_EQ(udcids, loaded.udcids);
    EXPECT_TRUE(DataOf(filter) == DataOf(*loaded.filter));
    EXPECT_EQ(filter.GetInsertedFingerPrints(), loaded.filter->GetInsertedFingerPrints());
  }

  /// After a death before the rename, or a life to the end.
  void ExpectOldOrNew(bool died) const {
    if (died) {
      ExpectHolds(Load(path_), *oldFilter_, oldUdcids_);
    } else {
      ExpectHolds(Load(path_), *newFilter_, newUdcids_);
      EXPECT_FALSE(Exists(next_));
    }
    if (Exists(next_)) {
      const Loaded next = Load(next_);
      if (next.outcome == 0) {
        ExpectHolds(next, *newFilter_, newUdcids_);
      } else {
        EXPECT_EQ(kThrewIo, next.outcome) << "incomplete, and refused";
      }
    }
  }

  const std::string next_ = path_ + ".merge";
  const std::unique_ptr<BloomFilter> oldFilter_ = FilterOf(1000, 10);
  const DcidBytes oldUdcids_{{64, 1}};
  const std::unique_ptr<BloomFilter> newFilter_ = FilterOf(0x200000, 100);
  const DcidBytes newUdcids_{{64, 1}, {65, 2}};
};

TEST_F(BloomCrashTest, AKillAtAnyCallLeavesTheOldFileWhole) {
  const std::vector<std::pair<Call, int>> calls = {{Call::kUnlink, 1},
                                                   {Call::kOpen, 1},
                                                   {Call::kWrite, 5},
                                                   {Call::kClose, 1},
                                                   {Call::kRename, 1}};
  for (const auto& [call, times] : calls) {
    int deaths = 0;
    for (bool died = true; died; deaths += died ? 1 : 0) {
      SCOPED_TRACE("call " + std::to_string(static_cast<int>(call)) + ", death " +
                   std::to_string(deaths + 1));
      died = RenewAndDie([&, c = call] { Faults::KillNth(c, deaths + 1); });
      ExpectOldOrNew(died);
    }
    EXPECT_EQ(times, deaths) << static_cast<int>(call);
  }
}

TEST_F(BloomCrashTest, AKillInTheMiddleOfAWriteLeavesTheOldFileWhole) {
  for (int nth = 1; nth <= 5; ++nth) {
    SCOPED_TRACE(nth);
    const bool died = RenewAndDie([nth] {
      Faults::ShortWriteNth(nth, 3);
      Faults::KillNth(Call::kWrite, nth + 1);
    });
    EXPECT_TRUE(died);
    ExpectOldOrNew(died);
    EXPECT_EQ(kThrewIo, Load(next_).outcome);
  }
}

}  // namespace
