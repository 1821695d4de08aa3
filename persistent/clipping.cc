#include "persistent/clipping.h"

#include "host/zefs_log.h"

namespace Aldenta::Qnd::Morene::Zefs {

void HideBack(Ext* older, long newerStart) {
  if (newerStart < older->eOff) {
    ZEFS_LOG(zefs::kLogTrace, "modify end %lld to %lld", static_cast<long long>(older->eOff),
             static_cast<long long>(newerStart));
    older->eOff = newerStart;
  }
}

void HideFront(Ext* older, long newerEnd) {
  if (older->sOff < newerEnd) {
    // A record may hold any numbers: the sums wrap around instead of overflowing.
    const auto distance =
        static_cast<std::uint64_t>(newerEnd) - static_cast<std::uint64_t>(older->sOff);
    ZEFS_LOG(zefs::kLogTrace, "modify start %lld to %lld, add objOffset %lld",
             static_cast<long long>(older->sOff), static_cast<long long>(newerEnd),
             static_cast<long long>(distance));
    older->objOff = static_cast<std::int64_t>(static_cast<std::uint64_t>(older->objOff) + distance);
    older->sOff = newerEnd;
  }
}

}  // namespace Aldenta::Qnd::Morene::Zefs
