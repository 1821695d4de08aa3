#pragma once

#include <lmdb.h>

#include "persistent/records.h"

// Steps over the records of a database. LMDB trusts the pages that it reads: in a damaged tree the
// next record can be one that was passed before, and a walk that goes on from it has no end. So
// each step looks at the key that it was given. A page that claims to hold keys only gives no value
// at all: what stood in `value` before must not be taken for one.

namespace Aldenta::Qnd::Morene::Zefs {

/// Positions `cursor` on the first record whose key is `from` or above: 0, or LMDB's code.
/// MDB_CORRUPTED for a record that lies before.
inline int SeekRecord(MDB_cursor* cursor, std::int64_t from, MDB_val* key, MDB_val* value) {
  RecordKey wanted(from);
  *key = wanted.Val();
  *value = {};
  const int ret = mdb_cursor_get(cursor, key, value, MDB_SET_RANGE);
  return ret == 0 && (value->mv_data == nullptr || ReadKey(*key) < from) ? MDB_CORRUPTED : ret;
}

/// Steps from the record of the key `last` to the one behind it: 0, or LMDB's code. MDB_CORRUPTED
/// for a record that does not lie behind.
inline int NextRecord(MDB_cursor* cursor, std::int64_t last, MDB_val* key, MDB_val* value) {
  *value = {};
  const int ret = mdb_cursor_get(cursor, key, value, MDB_NEXT);
  return ret == 0 && (value->mv_data == nullptr || ReadKey(*key) <= last) ? MDB_CORRUPTED : ret;
}

}  // namespace Aldenta::Qnd::Morene::Zefs
