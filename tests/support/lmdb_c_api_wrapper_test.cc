#include "support/lmdb_c_api_wrapper.h"

#include <cerrno>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "tests/support/temp_dir.h"
#include "tests/support/vtable_slot.h"

namespace {

using storage::utils::LmdbCApiWrapper;
using zefs::test::SlotOf;

MDB_val Val(std::string& text) {
  return MDB_val{text.size(), text.data()};
}
std::string Text(const MDB_val& val) {
  return std::string(static_cast<const char*>(val.mv_data), val.mv_size);
}

int Reversed(const MDB_val* a, const MDB_val* b) {
  return Text(*b).compare(Text(*a));
}

/// One operation behind the others: shows how many slots there are.
struct OneMoreWrapper : LmdbCApiWrapper {
  virtual void more() {}
};

TEST(LmdbCApiWrapperTest, OperationsStandInTheirSlots) {
  using W = LmdbCApiWrapper;
  EXPECT_EQ(2U, SlotOf(&W::dbi_open));
  EXPECT_EQ(3U, SlotOf(&W::set_compare));
  EXPECT_EQ(4U, SlotOf(&W::txn_begin));
  EXPECT_EQ(5U, SlotOf(&W::txn_commit));
  EXPECT_EQ(6U, SlotOf(&W::txn_abort));
  EXPECT_EQ(7U, SlotOf(&W::cursor_open));
  EXPECT_EQ(8U, SlotOf(&W::cursor_close));
  EXPECT_EQ(9U, SlotOf(&W::cursor_get));
  EXPECT_EQ(10U, SlotOf(&W::put));
  EXPECT_EQ(11U, SlotOf(&W::env_sync));
  EXPECT_EQ(12U, SlotOf(&W::env_create));
  EXPECT_EQ(13U, SlotOf(&W::env_set_mapsize));
  EXPECT_EQ(14U, SlotOf(&W::env_close));
  EXPECT_EQ(15U, SlotOf(&W::dbi_close));
  EXPECT_EQ(16U, SlotOf(&W::env_open));
  EXPECT_EQ(17U, SlotOf(&W::get));
  EXPECT_EQ(18U, SlotOf(&W::del));
  EXPECT_EQ(19U, SlotOf(&W::strerror));
  EXPECT_EQ(20U, SlotOf(&OneMoreWrapper::more)) << "nothing stands behind";
  EXPECT_EQ(sizeof(void*), sizeof(W));
}

TEST(LmdbCApiWrapperTest, EveryCallReachesLmdb) {
  const zefs::test::TempDir dir;
  const LmdbCApiWrapper api;
  MDB_env* env = nullptr;
  ASSERT_EQ(0, api.env_create(&env));
  ASSERT_EQ(0, api.env_set_mapsize(env, 1UL << 20));
  MDB_envinfo info{};
  ASSERT_EQ(0, api.env_open(env, dir.path().c_str(), 0, 0600));
  ASSERT_EQ(0, mdb_env_info(env, &info));
  EXPECT_EQ(1UL << 20, info.me_mapsize);

  MDB_txn* txn = nullptr;
  unsigned int dbi = 0;
  ASSERT_EQ(0, api.txn_begin(env, nullptr, 0, &txn));
  ASSERT_EQ(0, api.dbi_open(txn, nullptr, 0, &dbi));
  ASSERT_EQ(0, api.set_compare(txn, dbi, Reversed));
  std::string a = "a";
  std::string b = "b";
  MDB_val keyA = Val(a);
  MDB_val keyB = Val(b);
  EXPECT_EQ(0, api.put(txn, dbi, &keyA, &keyA, 0));
  EXPECT_EQ(0, api.put(txn, dbi, &keyB, &keyB, 0));
  EXPECT_EQ(MDB_KEYEXIST, api.put(txn, dbi, &keyB, &keyB, MDB_NOOVERWRITE));
  EXPECT_EQ(0, api.txn_commit(txn));
  EXPECT_EQ(0, api.env_sync(env, 1));

  ASSERT_EQ(0, api.txn_begin(env, nullptr, MDB_RDONLY, &txn));
  MDB_cursor* cursor = nullptr;
  ASSERT_EQ(0, api.cursor_open(txn, dbi, &cursor));
  MDB_val key{};
  MDB_val data{};
  ASSERT_EQ(0, api.cursor_get(cursor, &key, &data, MDB_FIRST));
  EXPECT_EQ("b", Text(key)) << "the comparison that was set is in force";
  EXPECT_EQ(0, api.cursor_get(cursor, &key, &data, MDB_NEXT));
  EXPECT_EQ(MDB_NOTFOUND, api.cursor_get(cursor, &key, &data, MDB_NEXT));
  EXPECT_EQ(0, api.get(txn, dbi, &keyA, &data));
  EXPECT_EQ("a", Text(data));
  api.cursor_close(cursor);
  api.txn_abort(txn);

  ASSERT_EQ(0, api.txn_begin(env, nullptr, 0, &txn));
  EXPECT_EQ(0, api.del(txn, dbi, &keyA, nullptr));
  EXPECT_EQ(MDB_NOTFOUND, api.get(txn, dbi, &keyA, &data));
  api.txn_abort(txn);
  EXPECT_STREQ(mdb_strerror(MDB_NOTFOUND), api.strerror(MDB_NOTFOUND));
  api.dbi_close(env, dbi);
  api.env_close(env);
}

TEST(LmdbCApiWrapperTest, EachArgumentArrives) {
  const zefs::test::TempDir dir;
  const LmdbCApiWrapper api;
  MDB_env* env = nullptr;
  ASSERT_EQ(0, api.env_create(&env));
  ASSERT_EQ(0, mdb_env_set_maxdbs(env, 1));
  const std::string file = (dir / "named").string();
  ASSERT_EQ(0, api.env_open(env, file.c_str(), MDB_NOSUBDIR | MDB_NOLOCK, 0640));
  unsigned int flags = 0;
  ASSERT_EQ(0, mdb_env_get_flags(env, &flags));
  EXPECT_NE(0U, flags & MDB_NOLOCK);
  EXPECT_EQ(boost::filesystem::owner_read | boost::filesystem::owner_write |
                boost::filesystem::group_read,
            boost::filesystem::status(file).permissions() | boost::filesystem::group_read);

  MDB_txn* parent = nullptr;
  MDB_txn* child = nullptr;
  unsigned int dbi = 0;
  ASSERT_EQ(0, api.txn_begin(env, nullptr, 0, &parent));
  EXPECT_EQ(MDB_NOTFOUND, api.dbi_open(parent, "name", 0, &dbi)) << "without the flag to create";
  ASSERT_EQ(0, api.dbi_open(parent, "name", MDB_CREATE | MDB_DUPSORT, &dbi));
  ASSERT_EQ(0, api.txn_begin(env, parent, 0, &child)) << "a child: the parent arrives";
  std::string a = "a";
  std::string b = "b";
  MDB_val key = Val(a);
  MDB_val first = Val(a);
  MDB_val second = Val(b);
  EXPECT_EQ(0, api.put(child, dbi, &key, &first, 0));
  EXPECT_EQ(0, api.put(child, dbi, &key, &second, 0));
  EXPECT_EQ(0, api.txn_commit(child));
  EXPECT_EQ(0, api.del(parent, dbi, &key, &first)) << "of two values this one goes";
  MDB_val left{};
  ASSERT_EQ(0, api.get(parent, dbi, &key, &left));
  EXPECT_EQ("b", Text(left));
  api.txn_abort(parent);
  api.env_close(env);
}

TEST(LmdbCApiWrapperTest, FailuresAreTheCodesOfLmdb) {
  const zefs::test::TempDir dir;
  const LmdbCApiWrapper api;
  MDB_env* env = nullptr;
  ASSERT_EQ(0, api.env_create(&env));
  EXPECT_EQ(ENOENT, api.env_open(env, (dir / "nothing").c_str(), 0, 0600));
  api.env_close(env);

  ASSERT_EQ(0, api.env_create(&env));
  ASSERT_EQ(0, api.env_open(env, dir.path().c_str(), 0, 0600));
  MDB_txn* txn = nullptr;
  unsigned int dbi = 0;
  ASSERT_EQ(0, api.txn_begin(env, nullptr, 0, &txn));
  ASSERT_EQ(0, api.dbi_open(txn, nullptr, 0, &dbi));
  std::string text = "not there";
  MDB_val key = Val(text);
  EXPECT_EQ(MDB_NOTFOUND, api.del(txn, dbi, &key, nullptr));
  EXPECT_EQ(EINVAL, api.env_set_mapsize(env, 1UL << 20)) << "while a transaction runs";
  api.txn_abort(txn);
  api.env_close(env);
}

}  // namespace
