#include "refhost/store/recount.h"

#include <algorithm>
#include <cstdint>
#include <limits>
#include <memory>
#include <set>
#include <unordered_map>
#include <utility>
#include <vector>

#include "host/bloom_filter.h"
#include "table/extent.h"
#include "table/fingerprint.h"

namespace zefs::refhost {

namespace {

using Aldenta::Qnd::Morene::Zefs::kFirstDcid;
using Aldenta::Qnd::Morene::Zefs::TextOf;
using DcidList = std::vector<std::pair<unsigned long, unsigned long>>;
using FingerprintList = std::vector<FingerprintText>;

std::string BytesOf(std::uint64_t dcid, std::uint64_t bytes) {
  return std::to_string(bytes) + " bytes of container " + std::to_string(dcid);
}

/// The recount as the table would list it.
DcidList ListOfDcids(const ReferenceCounts& counts) {
  return DcidList(counts.bytesByDcid.begin(), counts.bytesByDcid.end());
}
FingerprintList ListOfFingerprints(const ReferenceCounts& counts) {
  FingerprintList list;
  list.reserve(counts.extentsByFingerprint.size());
  for (const auto& [text, extents] : counts.extentsByFingerprint) {
    list.push_back(text);
  }
  return list;
}

std::string Difference(const DcidList& told, const DcidList& counted) {
  const auto [a, b] = std::mismatch(told.begin(), told.end(), counted.begin(), counted.end());
  if (a == told.end() && b == counted.end()) {
    return {};
  }
  return "the table references " + (a == told.end() ? "no more" : BytesOf(a->first, a->second)) +
         ", a recount gives " + (b == counted.end() ? "no more" : BytesOf(b->first, b->second));
}

std::string Difference(const FingerprintList& told, const FingerprintList& counted) {
  const auto [a, b] = std::mismatch(told.begin(), told.end(), counted.begin(), counted.end());
  if (a == told.end() && b == counted.end()) {
    return {};
  }
  const std::string none = "no more fingerprints";
  return "the table references " + (a == told.end() ? none : a->data()) + ", a recount gives " +
         (b == counted.end() ? none : b->data());
}

std::string ReferencesDifference(MappingTable& table, const ReferenceCounts& counts) {
  const DcidList countedDcids = ListOfDcids(counts);
  const FingerprintList countedFps = ListOfFingerprints(counts);
  DcidList dcids;
  table.GetNewReferencedDCID(&dcids);
  FingerprintList fps;
  table.GetReferencedFP(&fps);
  DcidList bothDcids;
  FingerprintList bothFps;
  table.GetDCIDAndFP(&bothDcids, &bothFps);
  for (const std::string& difference :
       {Difference(dcids, countedDcids), Difference(fps, countedFps),
        Difference(bothDcids, countedDcids), Difference(bothFps, countedFps)}) {
    if (!difference.empty()) {
      return difference;
    }
  }
  return {};
}

std::string SizeDifference(MappingTable& table, std::uint64_t extents) {
  if (static_cast<std::uint64_t>(table.size()) == extents) {
    return {};
  }
  return "the table says it has " + std::to_string(table.size()) + " extents, a walk finds " +
         std::to_string(extents);
}

void AddTo(ReferenceCounts* total, const ReferenceCounts& counts) {
  for (const auto& [dcid, bytes] : counts.bytesByDcid) {
    total->bytesByDcid[dcid] += bytes;
  }
  for (const auto& [text, extents] : counts.extentsByFingerprint) {
    total->extentsByFingerprint[text] += extents;
  }
  total->extents += counts.extents;
}

/// The first fingerprint of the recount that `has` denies.
template <typename Has>
std::string Missing(const ReferenceCounts& counts, const char* where, const Has& has) {
  for (const auto& [text, extents] : counts.extentsByFingerprint) {
    crfp_digest_t fp{};
    CRFPStringToDigest_r(text.data(), kCrfpDigestKind, fp.data());
    if (!has(fp)) {
      return std::string("a recount gives ") + text.data() + ", which is not among " + where;
    }
  }
  return {};
}

/// Whether a walk shows every extent of the full database as it is stored there. Of one whose front
/// shows before a newer extent that ends where it does, as two have after a cut, the table counts
/// nothing; of any other that is cut, more than shows.
bool ShowsWhole(MappingTable& table) {
  std::set<std::pair<std::int64_t, std::int64_t>> shown;
  const auto behind = table.end();
  for (auto it = table.begin(); it != behind; ++it) {
    shown.emplace(it->getSOff(), it->getEOff());
  }
  const auto stored = table.GetObjectIdsAndOffsets(1, std::numeric_limits<long>::max());
  return std::all_of(stored.begin(), stored.end(), [&](const auto& extent) {
    return shown.count({extent.startOffset, extent.endOffset}) != 0;
  });
}

std::string StoredCountsDifference(MappingTable& table, const ReferenceCounts& counts) {
  std::unordered_map<unsigned long, unsigned long> bytes;
  std::vector<crfp_digest_t> fps;
  table.GetDCIDAndFPs(&bytes, &fps);
  const std::set<crfp_digest_t> told(fps.begin(), fps.end());
  std::string difference = Missing(counts, "the fingerprints that the table references",
                                   [&](const crfp_digest_t& fp) { return told.count(fp) != 0; });
  if (!difference.empty()) {
    return difference;
  }
  if (fps.size() == counts.extents && ShowsWhole(table)) {  // no record is hidden by another
    const std::map<unsigned long, unsigned long> sorted(bytes.begin(), bytes.end());
    difference = Difference(DcidList(sorted.begin(), sorted.end()), ListOfDcids(counts));
    if (!difference.empty()) {
      return difference;
    }
  }
  DcidList unused;
  std::unique_ptr<BloomFilter> filter;
  table.GetDCIDAndBloomFilter(&unused, &filter);
  return Missing(counts, "what the table's filter admits", [&](const crfp_digest_t& fp) {
    return filter != nullptr && filter->Contains(fp);
  });
}

}  // namespace

std::string ShapeDifference(MappingTable& table, std::int64_t fileSize) {
  std::int64_t lastEnd = 0;
  const auto behind = table.end();
  for (auto it = table.begin(); it != behind; ++it) {
    if (it->getSOff() < lastEnd || it->getEOff() <= it->getSOff() || it->getEOff() > fileSize) {
      return "extent [" + std::to_string(it->getSOff()) + ", " + std::to_string(it->getEOff()) +
             ") lies wrong: the one before ends at " + std::to_string(lastEnd) + ", the file at " +
             std::to_string(fileSize);
    }
    lastEnd = it->getEOff();
  }
  return {};
}

void CountExtents(MappingTable& table, ReferenceCounts* counts) {
  const auto behind = table.end();
  for (auto it = table.begin(); it != behind; ++it) {
    ++counts->extents;
    const auto objectID = it->getObjectID();
    if (objectID.dcid < kFirstDcid) {
      continue;  // names no container: such extents are not counted
    }
    counts->bytesByDcid[objectID.dcid] += static_cast<std::uint64_t>(it->getEOff() - it->getSOff());
    ++counts->extentsByFingerprint[TextOf(objectID.fp)];
  }
}

std::string ReferenceDifference(MappingTable& table, std::int64_t fileSize,
                                ReferenceCounts* total) {
  ReferenceCounts counts;
  CountExtents(table, &counts);
  AddTo(total, counts);
  std::string difference = SizeDifference(table, counts.extents);
  if (difference.empty()) {
    difference = ShapeDifference(table, fileSize);
  }
  return difference.empty() ? ReferencesDifference(table, counts) : difference;
}

std::string StoredReferenceDifference(MappingTable& table, std::int64_t fileSize,
                                      ReferenceCounts* total) {
  ReferenceCounts counts;
  CountExtents(table, &counts);
  AddTo(total, counts);
  std::string difference = ShapeDifference(table, fileSize);
  return difference.empty() ? StoredCountsDifference(table, counts) : difference;
}

}  // namespace zefs::refhost
