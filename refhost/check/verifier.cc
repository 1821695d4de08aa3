#include "refhost/check/verifier.h"

#include <algorithm>
#include <utility>

namespace zefs::refhost {

void Verifier::Run(const std::vector<CopiedFile>& files) {
  for (const CopiedFile& file : files) {
    result_.difference = CompareBytes(file);
    if (!result_.difference.has_value()) {
      result_.difference = CompareReferences(file);
    }
    if (result_.difference.has_value()) {
      return;
    }
  }
  result_.difference = CompareSums();
  result_.extents = recount_.extents;
  result_.containersReferenced = recount_.bytesByDcid.size();
  result_.fingerprintsReferenced = recount_.extentsByFingerprint.size();
}

std::optional<Difference> Verifier::CompareBytes(const CopiedFile& file) {
  const std::int64_t size = file.copy.size();
  for (std::int64_t at = 0; at < size; at += static_cast<std::int64_t>(kCheckBlockBytes)) {
    if (auto difference = CompareBlock(file, at); difference.has_value()) {
      return difference;
    }
  }
  const std::int64_t stored = store_.SizeOf(file.id);
  if (stored != size) {
    return Difference{
        file.path, std::min(stored, size),
        "the stored file has " + std::to_string(stored) + " bytes and not " + std::to_string(size)};
  }
  return std::nullopt;
}

std::optional<Difference> Verifier::CompareBlock(const CopiedFile& file, std::int64_t at) {
  const std::size_t expected = copies_.Read(file.copy, at, plain_.get(), kCheckBlockBytes);
  std::size_t got = 0;
  const auto read = [&] { return store_.Read(file.id, at, stored_.get(), kCheckBlockBytes); };
  if (auto difference =
          Attempt(file.path, at, [&] { got = Timed(&result_.verify, expected, read); });
      difference.has_value()) {
    return difference;
  }
  done_ += expected;
  if (progress_) {
    progress_("verify", done_, result_.logicalBytes);
  }
  const auto [a, b] =
      std::mismatch(stored_.get(), stored_.get() + got, plain_.get(), plain_.get() + expected);
  const bool storedEnds = a == stored_.get() + got;
  const bool plainEnds = b == plain_.get() + expected;
  if (storedEnds && plainEnds) {
    return std::nullopt;
  }
  if (storedEnds || plainEnds) {
    return Difference{file.path, at + (a - stored_.get()), "the stored file ends at another place"};
  }
  return Difference{file.path, at + (a - stored_.get()),
                    "the byte is " + std::to_string(static_cast<unsigned char>(*a)) + " and not " +
                        std::to_string(static_cast<unsigned char>(*b))};
}

std::optional<Difference> Verifier::CompareReferences(const CopiedFile& file) {
  return Attempt(file.path, 0, [&] {
    const std::int64_t size = store_.SizeOf(file.id);
    store_.WithTable(file.id, [&](MappingTable& table) {
      const std::string difference = kind_ == TableKind::kMemory
                                         ? ReferenceDifference(table, size, &recount_)
                                         : StoredReferenceDifference(table, size, &recount_);
      if (!difference.empty()) {
        throw DamageError(difference);
      }
      if (kind_ == TableKind::kMemory) {
        AddReferences(table);
      }
    });
  });
}

void Verifier::AddReferences(MappingTable& table) {
  std::vector<std::pair<unsigned long, unsigned long>> dcids;
  std::vector<FingerprintText> fingerprints;
  table.GetDCIDAndFP(&dcids, &fingerprints);
  for (const auto& [dcid, bytes] : dcids) {
    bytesByDcid_[dcid] += bytes;
  }
  fingerprints_.insert(fingerprints.begin(), fingerprints.end());
}

/// Persistent tables were compared one by one, as far as they count what is visible.
std::optional<Difference> Verifier::CompareSums() const {
  if (kind_ == TableKind::kPersistent) {
    return std::nullopt;
  }
  const auto sameText = [](const FingerprintText& told, const auto& counted) {
    return told == counted.first;
  };
  if (bytesByDcid_ == recount_.bytesByDcid &&
      std::equal(fingerprints_.begin(), fingerprints_.end(), recount_.extentsByFingerprint.begin(),
                 recount_.extentsByFingerprint.end(), sameText)) {
    return std::nullopt;
  }
  return Difference{kAllFiles, 0, "the references differ from a recount"};
}

}  // namespace zefs::refhost
