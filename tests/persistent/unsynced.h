#pragma once

#include <list>
#include <lmdb.h>

#include "persistent/lmdb_context.h"

namespace zefs::test {

/// Commits to these databases no longer wait for the disk. For tests that no crash is part of.
inline void DoNotSync(const std::list<Aldenta::Qnd::Morene::Zefs::LMDBContext*>& databases) {
  for (const auto* db : databases) {
    ::mdb_env_set_flags(db->env, MDB_NOSYNC, 1);
  }
}

}  // namespace zefs::test
