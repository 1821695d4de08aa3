# Finds LMDB and defines LMDB::LMDB. LMDB ships no CMake package of its own.

find_path(LMDB_INCLUDE_DIR lmdb.h)
find_library(LMDB_LIBRARY lmdb)
if(LMDB_INCLUDE_DIR)
  file(STRINGS "${LMDB_INCLUDE_DIR}/lmdb.h" lmdb_version_lines REGEX "^#define MDB_VERSION_(MAJOR|MINOR|PATCH)")
  string(REGEX REPLACE "[^0-9]*MAJOR[^0-9]*([0-9]+).*MINOR[^0-9]*([0-9]+).*PATCH[^0-9]*([0-9]+).*" "\\1.\\2.\\3"
         LMDB_VERSION "${lmdb_version_lines}")
endif()
include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(LMDB REQUIRED_VARS LMDB_LIBRARY LMDB_INCLUDE_DIR VERSION_VAR LMDB_VERSION)
if(LMDB_FOUND AND NOT TARGET LMDB::LMDB)
  add_library(LMDB::LMDB UNKNOWN IMPORTED)
  set_target_properties(LMDB::LMDB PROPERTIES
    IMPORTED_LOCATION "${LMDB_LIBRARY}" INTERFACE_INCLUDE_DIRECTORIES "${LMDB_INCLUDE_DIR}")
endif()
mark_as_advanced(LMDB_INCLUDE_DIR LMDB_LIBRARY)
