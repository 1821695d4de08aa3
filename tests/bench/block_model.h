#pragma once

#include <cstdint>
#include <map>
#include <tuple>
#include <utility>
#include <vector>

#include "bench/peers/extent_value.h"

namespace zefs_bench {

/// Everything that a map keeps for an extent, comparable and printable.
using Row = std::tuple<std::int64_t, std::int64_t, std::int64_t, std::int64_t, std::uint64_t,
                       crfp_digest_t, std::uint32_t, void*, std::int32_t>;

template <typename Value>
Row MakeRow(std::int64_t sOff, std::int64_t eOff, const Value& value) {
  return {sOff,
          eOff,
          value.objOff,
          value.objCksum,
          value.objectID.dcid,
          value.objectID.fp,
          value.objectID.attrWord,
          value.data,
          value.dcOffset};
}

/// An extent map byte by byte, or rather block by block: the reference of all. Every range is a
/// multiple of `kUnit`. A write has to outlive the model, which knows it by its address.
template <std::int64_t kUnit>
class BlockModel {
 public:
  void Insert(const Write& write) {
    for (std::int64_t at = write.sOff; at < write.eOff; at += kUnit) {
      blocks_[at] = {&write, write.objOff + (at - write.sOff)};
    }
  }
  void Truncate(std::int64_t size) { blocks_.erase(blocks_.lower_bound(size), blocks_.end()); }

  std::vector<Row> Rows() const {
    std::vector<Row> rows;
    const Write* previous = nullptr;
    for (const auto& [at, block] : blocks_) {
      const auto& [write, objOff] = block;
      if (write == previous && std::get<1>(rows.back()) == at) {
        std::get<1>(rows.back()) += kUnit;
      } else {
        const ExtentValue value{write->objectID, write->objCksum, objOff, nullptr, -1};
        rows.push_back(MakeRow(at, at + kUnit, value));
      }
      previous = write;
    }
    return rows;
  }

 private:
  std::map<std::int64_t, std::pair<const Write*, std::int64_t>> blocks_;
};

}  // namespace zefs_bench
