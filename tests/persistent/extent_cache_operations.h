#pragma once

#include <cstdint>
#include <ostream>
#include <rapidcheck.h>
#include <vector>

namespace zefs::test {

/// One random step on an extent cache.
struct CacheOperation {
  enum Kind { kWrite, kReady, kNotReady, kRecycle, kGetExtentData };

  Kind kind = kWrite;
  long offset = 0;
  long length = 1;
  long objOff = 0;
  int dcOffset = -1;
  std::uint64_t dcid = 0;
  unsigned int tag = 0;
  unsigned int node = 0;  ///< which node, counted as the property likes
  bool hasOid = true;
  bool hasNode = true;
};

inline void showValue(const CacheOperation& op, std::ostream& out) {
  static const char* const kNames[] = {"write", "ready", "not ready", "recycle", "GetExtentData"};
  out << kNames[op.kind] << " at " << op.offset << " length " << op.length << " from " << op.objOff
      << " dcid " << op.dcid << " tag " << op.tag << " dc offset " << op.dcOffset << " node "
      << op.node << (op.hasOid ? "" : " no oid") << (op.hasNode ? "" : " no node");
}

inline void showValue(const std::vector<CacheOperation>& operations, std::ostream& out) {
  for (const CacheOperation& op : operations) {
    out << "\n  ";
    showValue(op, out);
  }
}

/// Steps on ranges of [0, `domain`), small enough to collide all the time.
inline rc::Gen<std::vector<CacheOperation>> AnyCacheOperations(long domain) {
  using rc::gen::inRange;
  using rc::gen::set;
  using Op = CacheOperation;
  const auto length = rc::gen::weightedOneOf<long>(
      {{1, inRange<long>(-1, 1)}, {12, inRange<long>(1, 12)}, {4, inRange<long>(1, domain)}});
  const auto objOff = rc::gen::weightedOneOf<long>(
      {{4, inRange<long>(0, 1000)}, {1, inRange<long>(0x7ffffff0, 0x80000010)}});
  const auto kind = rc::gen::weightedElement<Op::Kind>({{24, Op::kWrite},
                                                        {5, Op::kReady},
                                                        {3, Op::kNotReady},
                                                        {2, Op::kRecycle},
                                                        {1, Op::kGetExtentData}});
  const auto mostly = rc::gen::weightedElement<bool>({{6, true}, {1, false}});
  const auto operation = rc::gen::build<Op>(
      set(&Op::kind, kind), set(&Op::offset, inRange<long>(0, domain)), set(&Op::length, length),
      set(&Op::objOff, objOff), set(&Op::dcOffset, inRange<int>(-3, 100)),
      set(&Op::dcid, inRange<std::uint64_t>(62, 67)), set(&Op::tag, inRange<unsigned int>(1, 9)),
      set(&Op::node, inRange<unsigned int>(0, 1000)), set(&Op::hasOid, mostly),
      set(&Op::hasNode, mostly));
  return rc::gen::resize(700, rc::gen::container<std::vector<Op>>(operation));
}

}  // namespace zefs::test
