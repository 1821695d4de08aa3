include_guard(GLOBAL)

# What is on disk beside the persistent table. LMDB is there anyway; every other store is compared with
# if it is installed, and left out if not. A program that links zefs_bench_stores gets a definition
# ZEFS_BENCH_<NAME> for each that there is.
add_library(zefs_bench_stores INTERFACE)
target_link_libraries(zefs_bench_stores INTERFACE LMDB::LMDB)

set(zefs_bench_missing_stores "")
function(zefs_bench_store name header library)
  find_path(ZEFS_BENCH_${name}_INCLUDE_DIR ${header})
  find_library(ZEFS_BENCH_${name}_LIBRARY ${library})
  mark_as_advanced(ZEFS_BENCH_${name}_INCLUDE_DIR ZEFS_BENCH_${name}_LIBRARY)
  if(ZEFS_BENCH_${name}_INCLUDE_DIR AND ZEFS_BENCH_${name}_LIBRARY)
    target_compile_definitions(zefs_bench_stores INTERFACE ZEFS_BENCH_${name})
    target_include_directories(zefs_bench_stores SYSTEM INTERFACE "${ZEFS_BENCH_${name}_INCLUDE_DIR}")
    target_link_libraries(zefs_bench_stores INTERFACE "${ZEFS_BENCH_${name}_LIBRARY}")
    target_sources(zefs_bench_stores INTERFACE ${ARGN})
  else()
    set(zefs_bench_missing_stores "${zefs_bench_missing_stores} ${library}" PARENT_SCOPE)
  endif()
endfunction()

zefs_bench_store(LEVELDB leveldb/db.h leveldb)
zefs_bench_store(ROCKSDB rocksdb/db.h rocksdb)
zefs_bench_store(SQLITE sqlite3.h sqlite3 "${CMAKE_CURRENT_LIST_DIR}/sqlite_store.cc")
if(zefs_bench_missing_stores)
  message(STATUS "Not compared with, as not installed (scripts/setup --bench):${zefs_bench_missing_stores}")
endif()
