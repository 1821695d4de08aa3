#pragma once

#include <cstdint>
#include <vector>

#include "bench/workload.h"
#include "tests/bench/block_model.h"

// What the tables on disk and their peers show, as rows that can be compared with the model's.

namespace zefs_bench {

/// The row of an extent as the subjects hand it out: the persistent table keeps no checksum.
template <typename Id>
Row RowOf(std::int64_t sOff, std::int64_t eOff, std::int64_t objOff, const Id& id) {
  return {sOff, eOff, objOff, 0, id.dcid, id.fp, id.attrWord, nullptr, -1};
}

template <typename Subject>
std::vector<Row> WalkedBy(Subject& subject) {
  std::vector<Row> rows;
  subject.Walk([&](std::int64_t sOff, std::int64_t eOff, std::int64_t objOff, const auto& id) {
    rows.push_back(RowOf(sOff, eOff, objOff, id));
  });
  return rows;
}

template <typename Subject>
std::vector<Row> FoundBy(Subject& subject, const std::vector<std::int64_t>& offsets) {
  std::vector<Row> rows;
  for (const std::int64_t offset : offsets) {
    subject.Find(offset, [&](std::int64_t sOff, std::int64_t eOff, std::int64_t objOff,
                             const auto& id) { rows.push_back(RowOf(sOff, eOff, objOff, id)); });
  }
  return rows;
}

inline std::vector<Write> WithoutChecksums(std::vector<Write> writes) {
  for (Write& write : writes) {
    write.objCksum = 0;
  }
  return writes;
}

}  // namespace zefs_bench
