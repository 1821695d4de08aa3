#include "table/references.h"

namespace Aldenta::Qnd::Morene::Zefs {

namespace {

/// Counts one more extent for `text` and gives its entry.
FingerprintReferences::iterator Raise(FingerprintReferences& byFp, const FingerprintText& text) {
  auto entry = byFp.lower_bound(text);
  if (entry != byFp.end() && entry->first == text) {
    ++entry->second;
    return entry;
  }
  return byFp.emplace_hint(entry, text, 1);
}

/// Counts one extent less. An entry that is, or was, at zero is at zero afterwards, and has to go.
void Lower(FingerprintReferences::iterator entry) {
  if (entry->second != 0) {
    --entry->second;
  }
}

}  // namespace

ReferenceChange::~ReferenceChange() {
  ForgetDcids();
  ForgetFps();
}

void ReferenceChange::Add(const ObjectID& oid, unsigned long bytes) {
  if (oid.dcid < kFirstDcid) {
    return;
  }
  AddBytes(oid.dcid, bytes);
  if (TouchedFp* known = Remembered(oid.fp)) {
    ++known->entry->second;
  } else if (const auto* indexed = index_.Find(oid.fp)) {
    ++(*indexed)->second;
    Remember(oid.fp, *indexed);
  } else {
    const auto entry = Raise(byFp_, TextOf(oid.fp));
    index_.Insert(oid.fp, entry);
    Remember(oid.fp, entry);
  }
}

void ReferenceChange::Delete(const ObjectID& oid, unsigned long bytes) {
  if (oid.dcid < kFirstDcid || !DeleteBytes(oid.dcid, bytes)) {
    return;
  }
  if (TouchedFp* known = Remembered(oid.fp)) {
    Lower(known->entry);
    return;
  }
  const auto entry = Find(oid.fp);
  if (entry != byFp_.end()) {
    Lower(entry);
    Remember(oid.fp, entry);
  }
}

/// The entry of a fingerprint, be it indexed or not; the end of the map if it is not counted.
FingerprintReferences::iterator ReferenceChange::Find(const crfp_digest_t& fp) {
  const auto* indexed = index_.Find(fp);
  return indexed != nullptr ? *indexed : byFp_.find(TextOf(fp));
}

void ReferenceChange::Add(unsigned long dcid, const FingerprintText& fp, unsigned long bytes) {
  if (dcid < kFirstDcid) {
    return;
  }
  AddBytes(dcid, bytes);
  Raise(byFp_, fp);
}

void ReferenceChange::Delete(unsigned long dcid, const FingerprintText& fp, unsigned long bytes) {
  if (dcid < kFirstDcid || !DeleteBytes(dcid, bytes)) {
    return;
  }
  auto entry = byFp_.find(fp);
  if (entry == byFp_.end()) {
    return;
  }
  Lower(entry);
  if (entry->second == 0) {
    crfp_digest_t digest{};
    CRFPStringToDigest_r(fp.data(), kCrfpDigestKind, digest.data());
    index_.Erase(digest, entry);
    byFp_.erase(entry);
  }
}

void ReferenceChange::AddBytes(unsigned long dcid, unsigned long bytes) {
  if (TouchedDcid* known = Remembered(dcid)) {
    known->entry->second += bytes;  // 0 where it was emptied
    known->emptied = false;
    return;
  }
  auto entry = byDcid_.lower_bound(dcid);
  if (entry != byDcid_.end() && entry->first == dcid) {
    entry->second += bytes;
  } else {
    entry = byDcid_.emplace_hint(entry, dcid, bytes);
  }
  Remember(entry);
}

/// False if the container is not counted.
bool ReferenceChange::DeleteBytes(unsigned long dcid, unsigned long bytes) {
  TouchedDcid* known = Remembered(dcid);
  if (known == nullptr) {
    const auto entry = byDcid_.find(dcid);
    if (entry == byDcid_.end()) {
      return false;
    }
    known = Remember(entry);
  } else if (known->emptied) {
    return false;
  }
  unsigned long& counted = known->entry->second;
  if (counted != 0) {
    counted -= bytes;
  }
  known->emptied = counted == 0;
  return true;
}

ReferenceChange::TouchedDcid* ReferenceChange::Remembered(unsigned long dcid) {
  for (std::size_t i = dcidCount_; i-- > 0;) {
    if (dcids_[i].entry->first == dcid) {
      return &dcids_[i];
    }
  }
  return nullptr;
}

ReferenceChange::TouchedFp* ReferenceChange::Remembered(const crfp_digest_t& fp) {
  for (std::size_t i = fpCount_; i-- > 0;) {
    if (fps_[i].fp == fp) {
      return &fps_[i];
    }
  }
  return nullptr;
}

ReferenceChange::TouchedDcid* ReferenceChange::Remember(DcidReferences::iterator entry) {
  if (dcidCount_ == kRemembered) {
    ForgetDcids();
  }
  dcids_[dcidCount_] = {entry, false};
  return &dcids_[dcidCount_++];
}

void ReferenceChange::Remember(const crfp_digest_t& fp, FingerprintReferences::iterator entry) {
  if (fpCount_ == kRemembered) {
    ForgetFps();
  }
  fps_[fpCount_++] = {fp, entry};
}

void ReferenceChange::ForgetDcids() {
  for (std::size_t i = 0; i < dcidCount_; ++i) {
    if (dcids_[i].emptied) {
      byDcid_.erase(dcids_[i].entry);
    }
  }
  dcidCount_ = 0;
}

void ReferenceChange::ForgetFps() {
  for (std::size_t i = 0; i < fpCount_; ++i) {
    if (fps_[i].entry->second == 0) {
      index_.Erase(fps_[i].fp, fps_[i].entry);
      byFp_.erase(fps_[i].entry);
    }
  }
  fpCount_ = 0;
}

}  // namespace Aldenta::Qnd::Morene::Zefs
