#include <cstring>
#include <limits>
#include <lmdb.h>

#include <boost/filesystem/operations.hpp>

#include "fuzz/table_directory/damage.h"
#include "tests/support/plain_lmdb.h"

// Damage of records: what no writer of this format stores, in databases that are sound for LMDB.

namespace zefs::fuzz {

namespace {

using zefs::test::EntryBytes;
using zefs::test::EntryFields;

int CompareKeys(const MDB_val* left, const MDB_val* right) {
  std::int64_t a = 0;
  std::int64_t b = 0;
  std::memcpy(&a, left->mv_data, sizeof(a));
  std::memcpy(&b, right->mv_data, sizeof(b));
  return a < b ? -1 : static_cast<int>(a > b);
}

std::string KeyBytes(std::uint64_t number) {
  std::string bytes;
  AppendNumber(&bytes, number, 8);
  return bytes;
}

/// The key of one of the special items, or of an extent near `damage.value`.
std::uint64_t SomeKey(const Damage& damage) {
  constexpr std::uint64_t kFirstSpecial = std::uint64_t{1} << 63;
  constexpr std::uint64_t kEnds = (std::uint64_t{1} << 40) - 1;
  return damage.node % 3 == 0 ? kFirstSpecial + damage.page % 5 : damage.value & kEnds;
}

void Put(MDB_txn* txn, MDB_dbi dbi, std::string key, std::string value) {
  MDB_val keyVal{key.size(), key.data()};
  MDB_val valueVal{value.size(), value.data()};
  ::mdb_put(txn, dbi, &keyVal, &valueVal, 0);  // a size that LMDB refuses changes nothing
}

std::string Extent(std::int64_t start, const Damage& damage) {
  EntryFields fields;
  fields.startOffset = start;
  fields.dcid = damage.page;
  fields.objectOffset = static_cast<std::int32_t>(damage.value);
  fields.dcOffset = -1 - damage.how;
  return EntryBytes(fields);
}

void Change(const Damage& damage, MDB_txn* txn, MDB_dbi dbi) {
  constexpr std::int64_t kEnds[] = {0,
                                    1,
                                    -1,
                                    std::numeric_limits<std::int64_t>::max(),
                                    std::numeric_limits<std::int64_t>::max() - 1,
                                    std::numeric_limits<std::int64_t>::min(),
                                    std::numeric_limits<std::int64_t>::min() + 4,
                                    4096};
  const std::uint64_t key = SomeKey(damage);
  const auto start = static_cast<std::int64_t>(key - 4096);
  switch (damage.kind) {
    case DamageKind::kPutRecord:
      Put(txn, dbi, KeyBytes(key),
          Extent(static_cast<std::int64_t>(key - damage.value % 70000), damage));
      break;
    case DamageKind::kDeleteRecord: {
      std::string bytes = KeyBytes(key);
      MDB_val keyVal{bytes.size(), bytes.data()};
      ::mdb_del(txn, dbi, &keyVal, nullptr);
      break;
    }
    case DamageKind::kOddValue: {
      constexpr std::size_t kSizes[] = {0, 1, 7, 8, 9, 39, 40, 48, 64, 71, 73, 100, 2000, 9000};
      std::string value = Extent(start, damage);
      value.resize(kSizes[damage.unused % std::size(kSizes)], '\x7f');
      Put(txn, dbi, KeyBytes(key), value);
      break;
    }
    case DamageKind::kOddKey: {
      constexpr std::size_t kSizes[] = {1, 2, 4, 7, 9, 16, 100, 511};
      std::string bytes = KeyBytes(key);
      bytes.resize(kSizes[damage.unused % std::size(kSizes)], '\0');
      Put(txn, dbi, bytes, Extent(start, damage));
      break;
    }
    case DamageKind::kReversedExtent:
      Put(txn, dbi, KeyBytes(key),
          Extent(static_cast<std::int64_t>(key + 1 + damage.page), damage));
      break;
    case DamageKind::kExtremeExtent:
      Put(txn, dbi, KeyBytes(static_cast<std::uint64_t>(kEnds[damage.unused % 8])),
          Extent(kEnds[damage.how % 8], damage));
      break;
    default:
      break;
  }
}

void ChangeIn(const Damage& damage, MDB_env* env, const std::string& file) {
  constexpr std::size_t kMapBytes = std::size_t{1} << 30;
  MDB_txn* txn = nullptr;
  MDB_dbi dbi = 0;
  if (::mdb_env_set_mapsize(env, kMapBytes) != 0 ||
      ::mdb_env_open(env, file.c_str(), MDB_NOSUBDIR | MDB_NOTLS | MDB_NOSYNC, 0600) != 0 ||
      ::mdb_txn_begin(env, nullptr, 0, &txn) != 0) {
    return;
  }
  if (::mdb_dbi_open(txn, nullptr, MDB_CREATE, &dbi) != 0) {
    ::mdb_txn_abort(txn);
    return;
  }
  ::mdb_set_compare(txn, dbi, &CompareKeys);
  Change(damage, txn, dbi);
  ::mdb_txn_commit(txn);
}

}  // namespace

void ApplyToRecords(const Damage& damage, const std::string& directory) {
  const std::vector<std::string> names = DatabasesIn(directory);
  if (names.empty()) {
    return;
  }
  const std::string file = directory + '/' + names[damage.file % names.size()];
  MDB_env* env = nullptr;
  if (::mdb_env_create(&env) == 0) {
    ChangeIn(damage, env, file);
    ::mdb_env_close(env);
  }
  boost::system::error_code ignored;
  boost::filesystem::remove(file + "-lock", ignored);
}

}  // namespace zefs::fuzz
