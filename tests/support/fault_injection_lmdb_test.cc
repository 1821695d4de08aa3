// The calls of LMDB among those that can be counted and made to fail.

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <functional>
#include <lmdb.h>
#include <string>
#include <vector>

#include <boost/filesystem/operations.hpp>
#include <gtest/gtest.h>

#include "tests/support/child_process.h"
#include "tests/support/fault_injection.h"
#include "tests/support/plain_lmdb.h"
#include "tests/support/temp_dir.h"

namespace zefs::test {
namespace {

namespace fs = boost::filesystem;

constexpr int kCode = -4711;

/// An open environment with one write transaction at a time.
class Database {
 public:
  explicit Database(const fs::path& file) {
    EXPECT_EQ(0, ::mdb_env_create(&env_));
    EXPECT_EQ(0, ::mdb_env_set_mapsize(env_, std::size_t{1} << 20));
    EXPECT_EQ(0, ::mdb_env_set_maxdbs(env_, 1));
    EXPECT_EQ(0, ::mdb_env_open(env_, file.c_str(), MDB_NOSUBDIR, 0600));
  }
  ~Database() { ::mdb_env_close(env_); }
  Database(const Database&) = delete;
  Database& operator=(const Database&) = delete;

  MDB_env* env() const { return env_; }
  MDB_txn* txn() const { return txn_; }
  MDB_dbi dbi() const { return dbi_; }

  int Begin() { return ::mdb_txn_begin(env_, nullptr, 0, &txn_); }
  int OpenDbi() { return ::mdb_dbi_open(txn_, nullptr, 0, &dbi_); }
  int Put(std::int64_t number) const {
    MDB_val key{sizeof(number), &number};
    MDB_val value{sizeof(number), &number};
    return ::mdb_put(txn_, dbi_, &key, &value, MDB_NOOVERWRITE);
  }
  int Commit() const { return ::mdb_txn_commit(txn_); }

 private:
  MDB_env* env_ = nullptr;
  MDB_txn* txn_ = nullptr;
  MDB_dbi dbi_ = 0;
};

class FaultInjectionLmdbTest : public testing::Test {
 protected:
  /// The next `call` fails and changes nothing, so that `make` succeeds when it makes it again.
  static void FailsThenSucceeds(Call call, const std::function<int()>& make) {
    SCOPED_TRACE("call kind " + std::to_string(static_cast<int>(call)));
    const int before = Faults::Count(call);
    Faults::FailNth(call, 1, kCode);
    EXPECT_EQ(kCode, make());
    EXPECT_EQ(0, make());
    EXPECT_EQ(before + 2, Faults::Count(call));
  }

  /// One life of a database: records 1 and 2, each in a transaction of its own.
  static void Live(const fs::path& file) {
    Database database(file);
    for (const std::int64_t number : {1, 2}) {
      EXPECT_EQ(0, database.Begin());
      EXPECT_EQ(0, database.OpenDbi());
      EXPECT_EQ(0, database.Put(number));
      EXPECT_EQ(0, database.Commit());
    }
  }

  TempDir dir_;
  const fs::path file_ = dir_ / "small";
  WatchCalls watch_{dir_.path().string()};
};

int Backwards(const MDB_val* left, const MDB_val* right) {
  return *static_cast<const std::int64_t*>(left->mv_data) <
                 *static_cast<const std::int64_t*>(right->mv_data)
             ? 1
             : -1;
}

TEST_F(FaultInjectionLmdbTest, EachCallOnAnEnvironmentReturnsTheCodeAndHasNoEffect) {
  MDB_env* env = nullptr;
  MDB_txn* txn = nullptr;
  MDB_dbi dbi = 0;
  FailsThenSucceeds(Call::kMdbEnvCreate, [&] {
    EXPECT_EQ(nullptr, env);
    return ::mdb_env_create(&env);
  });
  FailsThenSucceeds(Call::kMdbEnvSetMapsize,
                    [&] { return ::mdb_env_set_mapsize(env, std::size_t{1} << 20); });
  FailsThenSucceeds(Call::kMdbEnvSetMaxdbs, [&] { return ::mdb_env_set_maxdbs(env, 1); });
  FailsThenSucceeds(Call::kMdbEnvOpen, [&] {
    EXPECT_FALSE(fs::exists(file_));
    return ::mdb_env_open(env, file_.c_str(), MDB_NOSUBDIR, 0600);
  });
  FailsThenSucceeds(Call::kMdbTxnBegin, [&] { return ::mdb_txn_begin(env, nullptr, 0, &txn); });
  FailsThenSucceeds(Call::kMdbDbiOpen, [&] { return ::mdb_dbi_open(txn, nullptr, 0, &dbi); });
  FailsThenSucceeds(Call::kMdbSetCompare, [&] { return ::mdb_set_compare(txn, dbi, &Backwards); });
  FailsThenSucceeds(Call::kMdbStat, [&] {
    MDB_stat stat{};
    return ::mdb_stat(txn, dbi, &stat);
  });
  ::mdb_txn_abort(txn);
  const std::string copy = (dir_ / "copy").string();
  FailsThenSucceeds(Call::kMdbEnvCopy2, [&] {
    EXPECT_FALSE(fs::exists(copy));
    return ::mdb_env_copy2(env, copy.c_str(), 0);
  });
  ::mdb_env_close(env);
  EXPECT_TRUE(fs::exists(copy));
}

TEST_F(FaultInjectionLmdbTest, EachCallOnRecordsReturnsTheCodeAndHasNoEffect) {
  Database database(file_);
  ASSERT_EQ(0, database.Begin());
  ASSERT_EQ(0, database.OpenDbi());
  std::int64_t number = 1;
  MDB_val key{sizeof(number), &number};
  MDB_val value{};
  errno = 0;
  FailsThenSucceeds(Call::kMdbPut, [&] { return database.Put(1); });
  EXPECT_EQ(0, errno) << "the code is the result alone";
  FailsThenSucceeds(Call::kMdbGet,
                    [&] { return ::mdb_get(database.txn(), database.dbi(), &key, &value); });
  EXPECT_EQ(sizeof(number), value.mv_size);
  FailsThenSucceeds(Call::kMdbDel,
                    [&] { return ::mdb_del(database.txn(), database.dbi(), &key, nullptr); });

  MDB_cursor* cursor = nullptr;
  FailsThenSucceeds(Call::kMdbCursorOpen,
                    [&] { return ::mdb_cursor_open(database.txn(), database.dbi(), &cursor); });
  FailsThenSucceeds(Call::kMdbCursorPut, [&] {
    MDB_val stored{sizeof(number), &number};
    return ::mdb_cursor_put(cursor, &key, &stored, MDB_NOOVERWRITE);
  });
  FailsThenSucceeds(Call::kMdbCursorGet,
                    [&] { return ::mdb_cursor_get(cursor, &key, &value, MDB_FIRST); });
  FailsThenSucceeds(Call::kMdbCursorDel, [&] { return ::mdb_cursor_del(cursor, 0); });
  EXPECT_EQ(MDB_NOTFOUND, ::mdb_cursor_get(cursor, &key, &value, MDB_FIRST));
  ::mdb_cursor_close(cursor);
  EXPECT_EQ(0, database.Commit());
}

TEST_F(FaultInjectionLmdbTest, AFailedCommitEndsTheTransactionAndKeepsNothing) {
  {
    Database database(file_);
    Faults::FailNth(Call::kMdbTxnCommit, 1, ENOSPC);
    ASSERT_EQ(0, database.Begin());
    ASSERT_EQ(0, database.OpenDbi());
    EXPECT_EQ(0, database.Put(1));
    EXPECT_EQ(ENOSPC, database.Commit());
    EXPECT_TRUE(Faults::Fired());
    ASSERT_EQ(0, database.Begin()) << "the write lock is free";
    ASSERT_EQ(0, database.OpenDbi());
    EXPECT_EQ(0, database.Put(2));
    EXPECT_EQ(0, database.Commit());
    EXPECT_EQ(2, Faults::Count(Call::kMdbTxnCommit));
  }
  const std::vector<PlainRecord> records = ReadPlainDatabase(file_);
  ASSERT_EQ(1U, records.size());
  EXPECT_EQ(2, records[0].key);
}

TEST_F(FaultInjectionLmdbTest, CallsThatLmdbMakesOfItselfDoNotCount) {
  Database database(file_);
  EXPECT_EQ(0, Faults::Count(Call::kMdbTxnBegin));
  Faults::FailNth(Call::kMdbTxnBegin, 1, kCode);
  EXPECT_EQ(0, ::mdb_env_copy2(database.env(), (dir_ / "copy").c_str(), 0))
      << "it begins a transaction to read from";
  EXPECT_EQ(0, Faults::Count(Call::kMdbTxnBegin));
  EXPECT_FALSE(Faults::Fired());
}

TEST_F(FaultInjectionLmdbTest, CallsCountWhereverTheDatabaseLiesAndNotAtAllWithoutAWatch) {
  const TempDir elsewhere;
  Live(elsewhere / "small");
  EXPECT_EQ(1, Faults::Count(Call::kMdbEnvCreate));
  EXPECT_EQ(2, Faults::Count(Call::kMdbPut));
  Faults::FailNth(Call::kMdbPut, 1, kCode, true);
  Faults::Reset();
  Live(file_);
  EXPECT_EQ(0, Faults::Count(Call::kMdbPut));
}

TEST_F(FaultInjectionLmdbTest, OnlyTheDatabaseOfTheNameIsWatched) {
  Faults::OnlyDatabase("small");
  Faults::FailNth(Call::kMdbEnvCreate, 1, kCode, true);
  Faults::FailNth(Call::kMdbEnvSetMapsize, 1, kCode, true);
  Faults::FailNth(Call::kMdbEnvSetMaxdbs, 1, kCode, true);
  Faults::FailNth(Call::kMdbPut, 3, kCode, true);
  Live(dir_ / "full");
  Live(dir_ / "notsmall");
  EXPECT_EQ(0, Faults::Count(Call::kMdbEnvOpen));
  Live(file_);
  EXPECT_FALSE(Faults::Fired()) << "an environment without a path is not watched";
  EXPECT_EQ(0, Faults::Count(Call::kMdbEnvCreate));
  EXPECT_EQ(1, Faults::Count(Call::kMdbEnvOpen));
  EXPECT_EQ(2, Faults::Count(Call::kMdbTxnBegin));
  EXPECT_EQ(2, Faults::Count(Call::kMdbTxnCommit));
  EXPECT_EQ(2, Faults::Count(Call::kMdbPut));
  Database database(file_);
  EXPECT_EQ(kCode, ::mdb_env_set_mapsize(database.env(), std::size_t{1} << 21)) << "open by now";

  Faults::OnlyBelow(dir_.path().string());
  EXPECT_EQ(2U, ReadPlainDatabase(dir_ / "full").size());
  EXPECT_EQ(1, Faults::Count(Call::kMdbEnvOpen)) << "all databases again";
}

TEST_F(FaultInjectionLmdbTest, CursorsTellTheirDatabaseToo) {
  Faults::OnlyDatabase("full");
  Database database(file_);
  ASSERT_EQ(0, database.Begin());
  ASSERT_EQ(0, database.OpenDbi());
  MDB_cursor* cursor = nullptr;
  MDB_val key{};
  MDB_val value{};
  ASSERT_EQ(0, ::mdb_cursor_open(database.txn(), database.dbi(), &cursor));
  EXPECT_EQ(MDB_NOTFOUND, ::mdb_cursor_get(cursor, &key, &value, MDB_FIRST));
  EXPECT_EQ(0, Faults::Count(Call::kMdbCursorGet));
  Faults::OnlyDatabase("small");
  EXPECT_EQ(MDB_NOTFOUND, ::mdb_cursor_get(cursor, &key, &value, MDB_FIRST));
  EXPECT_EQ(1, Faults::Count(Call::kMdbCursorGet));
  ::mdb_cursor_close(cursor);
  ::mdb_txn_abort(database.txn());
}

TEST_F(FaultInjectionLmdbTest, TheLoopGoesThroughEveryCommit) {
  EXPECT_EQ(2, Faults::UntilNoneFires([&](int nth) {
              fs::remove(file_);
              Database database(file_);
              Faults::FailNth(Call::kMdbTxnCommit, nth, EIO);
              for (int number = 1; number <= 2; ++number) {
                EXPECT_EQ(0, database.Begin());
                EXPECT_EQ(0, database.OpenDbi());
                EXPECT_EQ(0, database.Put(number));
                EXPECT_EQ(number == nth ? EIO : 0, database.Commit());
              }
            }));
}

TEST_F(FaultInjectionLmdbTest, TheProcessDiesInPlaceOfTheCommit) {
  const int status = RunInChild([&] {
    Faults::KillNth(Call::kMdbTxnCommit, 2);
    Live(file_);
  });
  EXPECT_TRUE(DiedBy(status, SIGKILL));
  const std::vector<PlainRecord> records = ReadPlainDatabase(file_);
  ASSERT_EQ(1U, records.size());
  EXPECT_EQ(1, records[0].key);
}

}  // namespace
}  // namespace zefs::test
