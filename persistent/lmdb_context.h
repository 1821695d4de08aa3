#pragma once

#include <lmdb.h>
#include <string>

namespace Aldenta::Qnd::Morene::Zefs {

/// One database of a table. A plain record: destroying it closes nothing.
struct LMDBContext {
  MDB_env* env = nullptr;  ///< null while closed
  MDB_dbi dbi = 0;         ///< the unnamed database
  std::string path;        ///< of the database's one file; from the first attempt to open it on
  bool opened = false;     ///< set up whole, and not closed since
};

}  // namespace Aldenta::Qnd::Morene::Zefs
