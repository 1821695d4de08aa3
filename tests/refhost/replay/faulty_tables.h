#pragma once

#include "table/mapping_table.h"

namespace zefs::test {

using Aldenta::Qnd::Morene::Zefs::CMappingTable;
using Aldenta::Qnd::Morene::Zefs::ObjectID;

/// What a table gets wrong, for the tests of what is to notice it.
enum class Fault { kLosesAWrite, kShiftsTheObject, kForgetsTheObject };

/// A table whose second write goes wrong.
class FaultyTable final : public CMappingTable {
 public:
  explicit FaultyTable(Fault fault) : CMappingTable(nullptr), fault_(fault) {}

  int insert(long sOff, long eOff, const ObjectID* oid, long objOff, long objCksum, void* data,
             int dcOffset, FILE* trace) override {
    if (++writes_ == 2) {
      switch (fault_) {
        case Fault::kLosesAWrite:
          return 0;
        case Fault::kShiftsTheObject:
          ++objOff;
          break;
        case Fault::kForgetsTheObject:
          oid = nullptr;
          break;
      }
    }
    return CMappingTable::insert(sOff, eOff, oid, objOff, objCksum, data, dcOffset, trace);
  }

 private:
  Fault fault_;
  int writes_ = 0;
};

}  // namespace zefs::test
