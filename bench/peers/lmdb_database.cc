#include "bench/peers/lmdb_database.h"

#include <stdexcept>

#include "persistent/mapping_lmdb.h"

namespace zefs_bench {

namespace {

int CompareKeys(const MDB_val* left, const MDB_val* right) {
  std::int64_t a = 0;
  std::int64_t b = 0;
  std::memcpy(&a, left->mv_data, sizeof(a));
  std::memcpy(&b, right->mv_data, sizeof(b));
  return a < b ? -1 : static_cast<int>(a > b);
}

}  // namespace

void CheckLmdb(int code, const char* call) {
  if (code != MDB_SUCCESS) {
    throw std::runtime_error(std::string(call) + ": " + ::mdb_strerror(code));
  }
}

LmdbDatabase::LmdbDatabase(const std::string& file, unsigned int dbiFlags, Durability durability) {
  const unsigned int sync = durability == kSynced ? 0 : MDB_NOSYNC;
  using Aldenta::Qnd::Morene::Zefs::CMappingLMDB;
  CheckLmdb(::mdb_env_create(&env_), "mdb_env_create");
  CheckLmdb(::mdb_env_set_mapsize(env_, CMappingLMDB::kSmallMapSize), "mdb_env_set_mapsize");
  CheckLmdb(::mdb_env_open(env_, file.c_str(), MDB_NOSUBDIR | MDB_NOTLS | sync, 0600),
            "mdb_env_open");
  MDB_txn* txn = Begin(0);
  CheckLmdb(::mdb_dbi_open(txn, nullptr, dbiFlags, &dbi_), "mdb_dbi_open");
  CheckLmdb(::mdb_set_compare(txn, dbi_, &CompareKeys), "mdb_set_compare");
  CheckLmdb(::mdb_txn_commit(txn), "mdb_txn_commit");
}

}  // namespace zefs_bench
