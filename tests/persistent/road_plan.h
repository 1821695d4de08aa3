#pragma once

#include <algorithm>
#include <cstdint>
#include <list>

#include "persistent/mapping_lmdb.h"

// A prefetch plan, made from what look-ups find.

namespace zefs::test {

/// Adds one extent that a look-up has found, as the next one of a plan for `range`.
inline void AddToPlan(const Aldenta::Qnd::Morene::Zefs::Ext& ext,
                      const DataCacheManagementInterface::PrefetchRange& range,
                      std::list<DataCacheManagementInterface::DCInfo>* plan) {
  if (ext.objectID.dcid < Aldenta::Qnd::Morene::Zefs::kFirstDcid) {
    return;
  }
  auto info = std::find_if(plan->begin(), plan->end(),
                           [&](const auto& other) { return other.dcid == ext.objectID.dcid; });
  if (info == plan->end()) {
    info = plan->emplace(plan->end());
    info->dcid = ext.objectID.dcid;
    info->rangeTag = range.rangeTag;
  }
  const auto length = static_cast<std::uint32_t>(ext.eOff - ext.sOff);
  info->extents.push_back({ext.objectID, ext.sOff, static_cast<std::uint32_t>(ext.objOff), length,
                           ext.dcOffset, 0, ext.sOff < range.end});
  info->totalBytes += length;
}

/// Everything but the time.
inline bool SameExtent(const DataCacheManagementInterface::ExtInfo& a,
                       const DataCacheManagementInterface::ExtInfo& b) {
  return a.objectID.dcid == b.objectID.dcid && a.objectID.fp == b.objectID.fp &&
         a.objectID.attrByte == b.objectID.attrByte && a.objectID.attrWord == b.objectID.attrWord &&
         a.objectID.attrFlag == b.objectID.attrFlag && a.sOff == b.sOff && a.objOff == b.objOff &&
         a.length == b.length && a.dcOffset == b.dcOffset && a.inRange == b.inRange;
}

inline bool SamePlanned(const DataCacheManagementInterface::DCInfo& a,
                        const DataCacheManagementInterface::DCInfo& b) {
  return a.dcid == b.dcid && a.totalBytes == b.totalBytes && a.rangeTag == b.rangeTag &&
         a.reserved == b.reserved &&
         std::equal(a.extents.begin(), a.extents.end(), b.extents.begin(), b.extents.end(),
                    SameExtent);
}

}  // namespace zefs::test
