#include "refhost/index/lmdb_file.h"

#include <cerrno>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "refhost/store/store_error.h"
#include "tests/refhost/store/store_fixture.h"
#include "tests/support/fault_injection.h"

namespace zefs::refhost {
namespace {

using test::Call;
using test::Faults;
using test::ThrownText;

constexpr std::size_t kMapBytes = 1 << 20;

class LmdbFileTest : public ::testing::Test {
 protected:
  std::string Path() const { return (dir / "db").string(); }

  static std::string Contents(const LmdbFile& file) {
    std::string text;
    file.ForEach([&](std::string_view key, std::string_view value) {
      text += std::string(key) + "=" + std::string(value) + ";";
    });
    return text;
  }

  test::TempDir dir;
};

TEST_F(LmdbFileTest, ChangesAreThereInTheNextLife) {
  {
    LmdbFile file(Path(), kMapBytes);
    EXPECT_EQ(0U, file.size());
    EXPECT_EQ(std::nullopt, file.Get("a"));
    file.Apply({{"b", "2"}, {"a", "1"}, {"c", std::string("\0x", 2)}});
    file.Apply({{"b", std::nullopt}, {"none", std::nullopt}, {"a", "one"}});
  }
  const LmdbFile file(Path(), kMapBytes);
  EXPECT_EQ(2U, file.size());
  EXPECT_EQ("one", file.Get("a"));
  EXPECT_EQ(std::string("\0x", 2), file.Get("c"));
  EXPECT_EQ(std::nullopt, file.Get("b"));
}

TEST_F(LmdbFileTest, KeysComeInOrder) {
  LmdbFile file(Path(), kMapBytes);
  file.Apply({{"b", "2"}, {"a", "1"}});
  EXPECT_EQ("a=1;b=2;", Contents(file));
}

TEST_F(LmdbFileTest, LookingChangesNothingAndLeavesNothing) {
  { LmdbFile(Path(), kMapBytes).Apply({{"a", "1"}}); }
  boost::filesystem::remove(Path() + "-lock");
  EXPECT_EQ("a=1;", Contents(LmdbFile::ToLookAt(Path())));
  EXPECT_FALSE(boost::filesystem::exists(Path() + "-lock"));
}

TEST_F(LmdbFileTest, FailuresNameTheFileAndTheReason) {
  EXPECT_EQ("cannot open " + (dir / "no/db").string() + ": No such file or directory (ENOENT)",
            ThrownText<StoreError>([&] { LmdbFile((dir / "no/db").string(), kMapBytes); }));
  test::WriteFile(Path(), std::string(10000, 'x'));
  EXPECT_EQ("cannot open " + Path() + ": MDB_INVALID: File is not an LMDB file",
            ThrownText<StoreError>([&] { LmdbFile(Path(), kMapBytes); }));
}

TEST_F(LmdbFileTest, FullMapIsAnErrorAndChangesNothing) {
  LmdbFile file(Path(), 64 << 10);
  file.Apply({{"a", "1"}});
  const std::string text = ThrownText<StoreError>([&] {
    file.Apply({{"a", "2"}, {"b", std::string(100 << 10, 'x')}});
  });
  EXPECT_EQ(0U, text.find("cannot write " + Path() + ": MDB_MAP_FULL")) << text;
  EXPECT_EQ("a=1;", Contents(file));
}

TEST_F(LmdbFileTest, EveryCallOfAChangeCanFailAndNothingIsHalfDone) {
  LmdbFile file(Path(), kMapBytes);
  file.Apply({{"a", "1"}});
  const test::WatchCalls watch(dir.path().string());
  for (const Call call : {Call::kMdbTxnBegin, Call::kMdbPut, Call::kMdbDel, Call::kMdbTxnCommit}) {
    const int failed = Faults::UntilNoneFires([&](int nth) {
      Faults::FailNth(call, nth, EIO);
      try {
        file.Apply({{"a", "2"}, {"b", "2"}, {"c", std::nullopt}});
      } catch (const StoreError& error) {
        EXPECT_EQ(EIO, error.code);
        Faults::Disarm();
        EXPECT_EQ("a=1;", Contents(file));
      }
    });
    EXPECT_GE(failed, 1);
    file.Apply({{"a", "1"}, {"b", std::nullopt}});
  }
}

}  // namespace
}  // namespace zefs::refhost
