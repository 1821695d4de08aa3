#include <algorithm>
#include <csignal>
#include <string>
#include <unistd.h>
#include <vector>

#include <boost/filesystem/operations.hpp>
#include <gtest/gtest.h>

#include "sidefiles/dc_offset_store.h"
#include "tests/sidefiles/dc_offset_store_fixture.h"
#include "tests/support/child_process.h"
#include "tests/support/fault_injection.h"

// A process that dies in the middle: what it was told to be on file must be in one of the files.

namespace zefs::test {
namespace {

class DcOffsetStoreCrashTest : public DcOffsetStoreFixture {
 protected:
  static constexpr char kListTaken = 'r';
  static constexpr char kListReturned = 'm';

  /// Stores records 1 to 3, takes the list, and returns it with an offset for record 2. Says on
  /// `report` what has come to an end: the number of a record, kListTaken, kListReturned.
  void Live(int report) const {
    const auto say = [report](char what) { EXPECT_EQ(1, ::write(report, &what, 1)); };
    DcOffsetStore store(path_, false, kOffsetStoreName, kOffsetStoreTmpSuffix);
    for (char key = 1; key <= 3; ++key) {
      EXPECT_EQ(0, Store(store, Wanted(key)));
      say(key);
    }
    std::vector<DCOffset> list;
    EXPECT_EQ(0, store.Read(&list));
    say(kListTaken);
    for (DCOffset& record : list) {
      record.dcOffset = record.key == 2 ? 4096 : -1;
    }
    EXPECT_EQ(0, store.MergeDcOffset(list));
    say(kListReturned);
  }

  /// Lives in a child process that dies at the `nth` call of the kind. `*died` tells whether it got
  /// there. Returns what the child said.
  std::string LiveAndDie(Call call, int nth, bool* died) {
    int report[2] = {-1, -1};
    EXPECT_EQ(0, ::pipe(report));
    const int status = RunInChild([&] {
      Faults::OnlyBelow(dir_.path().string());
      Faults::KillNth(call, nth);
      Live(report[1]);
    });
    ::close(report[1]);
    std::string said;
    for (char what = 0; ::read(report[0], &what, 1) == 1;) {
      said += what;
    }
    ::close(report[0]);
    *died = DiedBy(status, SIGKILL);
    EXPECT_TRUE(*died || EndedWell(status));
    return said;
  }

  /// The keys of the records in the store and in the list set aside.
  std::vector<std::int64_t> KeysOnFile() const {
    std::vector<std::int64_t> keys;
    for (const std::string& path : {path_, aside_}) {
      for (const DCOffset& record : OnFile(path)) {
        keys.push_back(record.key);
      }
    }
    return keys;
  }
};

TEST_F(DcOffsetStoreCrashTest, RecordsReportedAsStoredSurviveAKillAtAnyCall) {
  Threshold(1);
  for (const Call call : {Call::kOpen, Call::kWrite, Call::kFsync, Call::kClose, Call::kRename,
                          Call::kUnlink, Call::kRead, Call::kStat}) {
    int deaths = 0;
    for (bool died = true; died; deaths += died ? 1 : 0) {
      SCOPED_TRACE("call " + std::to_string(static_cast<int>(call)) + ", death " +
                   std::to_string(deaths + 1));
      boost::filesystem::remove(path_);
      boost::filesystem::remove(aside_);
      const std::string said = LiveAndDie(call, deaths + 1, &died);
      const std::vector<std::int64_t> keys = KeysOnFile();
      const bool isOut = Exists(aside_);
      const bool wasTaken = said.find(kListTaken) != std::string::npos;
      for (const char key : said.substr(0, 3)) {
        const bool answered = key == 2 && wasTaken && !isOut;
        EXPECT_EQ(!answered, std::count(keys.begin(), keys.end(), key) > 0) << int{key};
      }
      if (!died) {
        EXPECT_EQ("\1\2\3rm", said);
        EXPECT_FALSE(isOut);
      }
    }
    EXPECT_GT(deaths, 0) << static_cast<int>(call);
  }
}

}  // namespace
}  // namespace zefs::test
