#include "refhost/replay/map_under_replay.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <iostream>
#include <sstream>

namespace zefs::refhost {

namespace {

using Aldenta::Qnd::Morene::Zefs::Ext;
using Aldenta::Qnd::Morene::Zefs::kFirstDcid;
using Aldenta::Qnd::Morene::Zefs::ObjectID;

constexpr unsigned long kWritesAContainer = 256;

/// A bijection that spreads successive numbers all over the range, as digests of data are spread:
/// the reference maps are sorted by fingerprint.
std::uint64_t Scatter(std::uint64_t x) {
  x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9U;
  x = (x ^ (x >> 27)) * 0x94d049bb133111ebU;
  return x ^ (x >> 31);
}

/// The object that line `line` writes. No two lines share one and none is the empty fingerprint:
/// the number of the line, plus one, stands at the end.
ObjectID ObjectOf(unsigned long line) {
  const std::uint64_t number = line + 1;
  const std::uint64_t scattered = Scatter(number);
  ObjectID object;
  object.dcid = kFirstDcid + line / kWritesAContainer;
  std::memcpy(object.fp.data(), &scattered, sizeof(scattered));
  std::memcpy(object.fp.data() + object.fp.size() - sizeof(number), &number, sizeof(number));
  return object;
}

bool SameObject(const ObjectID& a, const ObjectID& b) {
  return a.dcid == b.dcid && a.fp == b.fp && a.attrByte == b.attrByte && a.attrWord == b.attrWord &&
         a.attrFlag == b.attrFlag;
}

/// The line that wrote `ext`.
unsigned long LineOf(Ext& ext) {
  const ObjectID object = ext.getObjectID();
  std::uint64_t number = 0;
  std::memcpy(&number, object.fp.data() + object.fp.size() - sizeof(number), sizeof(number));
  if (number == 0 || !SameObject(object, ObjectOf(number - 1))) {
    throw ForeignExtent(ext.getSOff());
  }
  return number - 1;
}

/// Keeps standard output quiet. For calls that write there by themselves.
class QuietOutput {
 public:
  QuietOutput() : former_(std::cout.rdbuf(sink_.rdbuf())) {}
  ~QuietOutput() { std::cout.rdbuf(former_); }
  QuietOutput(const QuietOutput&) = delete;
  QuietOutput& operator=(const QuietOutput&) = delete;

 private:
  std::ostringstream sink_;
  std::streambuf* former_;
};

}  // namespace

MappingTable* MakeDefaultTable() {
  return NewTable(TableKind::kMemory, nullptr).release();
}

void MapUnderReplay::Write(const TraceRequest& request, unsigned long line) {
  units_.insert(request.unit);
  // Where a container would have it is the host's affair: any place that is known will do.
  const auto dcOffset = static_cast<int>(line % kWritesAContainer);
  tables_->Insert(request.unit, request.start, request.end, ObjectOf(line), dcOffset);
}

void MapUnderReplay::Read(const TraceRequest& request, std::vector<Piece>* pieces) {
  units_.insert(request.unit);
  MappingTable& table = tables_->Of(request.unit);
  const MappingTable::iterator end = table.end();
  for (MappingTable::iterator position = table.find(request.start, nullptr);
       position != end && position->getSOff() < request.end; ++position) {
    Ext& ext = *position;
    const long from = std::max(request.start, ext.getSOff());
    AppendPiece(pieces, {from, std::min(request.end, ext.getEOff()), LineOf(ext),
                         ext.getObjOff() + (from - ext.getSOff())});
  }
}

std::vector<Piece> MapUnderReplay::ReadAll(unsigned long unit) {
  MappingTable& table = tables_->Of(unit);
  std::vector<Piece> pieces;
  const MappingTable::iterator end = table.end();
  for (MappingTable::iterator position = table.begin(); position != end; ++position) {
    Ext& ext = *position;
    ++extentsRead_;
    AppendPiece(&pieces, {ext.getSOff(), ext.getEOff(), LineOf(ext), ext.getObjOff()});
  }
  return pieces;
}

MapUnderReplay::Size MapUnderReplay::Measure() {
  const QuietOutput quiet;
  Size total;
  for (const unsigned long unit : units_) {
    MappingTable& table = tables_->Of(unit);
    long nodes = 0;
    long slots = 0;
    total.bytes += table.getTableSize(&nodes, &slots);
    total.nodes += nodes;
  }
  total.extents = extentsRead_;
  return total;
}

}  // namespace zefs::refhost
