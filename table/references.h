#pragma once

#include <array>
#include <cstddef>
#include <map>

#include "table/extent.h"
#include "table/fingerprint.h"
#include "table/fingerprint_index.h"

namespace Aldenta::Qnd::Morene::Zefs {

/// Container id to the bytes of all extents that refer to it.
using DcidReferences = std::map<unsigned long, unsigned long>;

/// Applies the reference changes of one operation. The result is that of counting one extent after
/// the other, in the order of the calls, but most overwrites take an extent out and put pieces of
/// it back, so the entries last touched are remembered: they are not searched a second time, and an
/// entry that fell to zero keeps its place until the change ends, in case a piece refers to it
/// again.
///
/// Lives on the stack of one change, under the exclusive table lock; the maps are right once it is
/// destroyed.
class ReferenceChange {
 public:
  /// `index` belongs to `byFp`, and nothing but reference changes may take entries out of that.
  ReferenceChange(DcidReferences* byDcid, FingerprintReferences* byFp, FingerprintIndex* index)
      : byDcid_(*byDcid), byFp_(*byFp), index_(*index) {}
  ~ReferenceChange();
  ReferenceChange(const ReferenceChange&) = delete;
  ReferenceChange& operator=(const ReferenceChange&) = delete;

  /// Counts one extent of `bytes` bytes in. A dcid below kFirstDcid is not counted.
  void Add(const ObjectID& oid, unsigned long bytes);

  /// Counts one extent of `bytes` bytes out. A dcid below kFirstDcid is not counted; if the
  /// container is not counted the fingerprint is left alone too. Bytes wrap around below zero.
  void Delete(const ObjectID& oid, unsigned long bytes);

  /// The same by container id and fingerprint text. Nothing is remembered of the fingerprint: not
  /// to be mixed with the two above in one change.
  void Add(unsigned long dcid, const FingerprintText& fp, unsigned long bytes);
  void Delete(unsigned long dcid, const FingerprintText& fp, unsigned long bytes);

 private:
  struct TouchedDcid {
    DcidReferences::iterator entry;
    bool emptied;  // no longer counted, and erased unless it is counted in again
  };
  struct TouchedFp {
    crfp_digest_t fp;
    FingerprintReferences::iterator entry;  // a count of 0: emptied
  };
  static constexpr std::size_t kRemembered = 8;

  void AddBytes(unsigned long dcid, unsigned long bytes);
  bool DeleteBytes(unsigned long dcid, unsigned long bytes);
  TouchedDcid* Remembered(unsigned long dcid);
  TouchedFp* Remembered(const crfp_digest_t& fp);
  TouchedDcid* Remember(DcidReferences::iterator entry);
  void Remember(const crfp_digest_t& fp, FingerprintReferences::iterator entry);
  FingerprintReferences::iterator Find(const crfp_digest_t& fp);
  void ForgetDcids();
  void ForgetFps();

  DcidReferences& byDcid_;
  FingerprintReferences& byFp_;
  FingerprintIndex& index_;
  std::array<TouchedDcid, kRemembered> dcids_;
  std::array<TouchedFp, kRemembered> fps_;
  std::size_t dcidCount_ = 0;
  std::size_t fpCount_ = 0;
};

}  // namespace Aldenta::Qnd::Morene::Zefs
