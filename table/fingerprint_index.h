#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <vector>

#include "table/fingerprint.h"

namespace Aldenta::Qnd::Morene::Zefs {

/// Fingerprint text to the number of extents that refer to it.
using FingerprintReferences = std::map<FingerprintText, unsigned long>;

/// Finds entries of a FingerprintReferences without a search in the ordered map, each step of which
/// waits for memory. A hash table with open addressing and linear probing (Knuth, The Art of
/// Computer Programming, vol. 3, 6.4, algorithms L and R), at most three quarters full; the hash is
/// made of the first eight bytes of the fingerprint. 21 to 43 bytes an entry.
///
/// Only an aid: an entry that is not in here may still be in the map. Every entry in here must be
/// in the map. Under the exclusive table lock.
class FingerprintIndex {
 public:
  using Entry = FingerprintReferences::iterator;

  /// The entry of `fp`, or null. Valid until the next change of the index.
  const Entry* Find(const crfp_digest_t& fp) const;

  /// Ask memory for what Find(fp) will read, in two steps that are to lie some work apart: where
  /// the fingerprint is indexed, and then the entry.
  void PrefetchSlot(const crfp_digest_t& fp) const;
  void PrefetchEntry(const crfp_digest_t& fp) const;

  /// Adds the entry of `fp`, which is not in here.
  void Insert(const crfp_digest_t& fp, Entry entry);

  /// Takes out `entry`, that of `fp`, if it is in here.
  void Erase(const crfp_digest_t& fp, Entry entry);

  /// Takes all entries out.
  void Clear() { *this = FingerprintIndex(); }

 private:
  struct Slot {
    std::uint64_t hash = 0;  // 0: empty
    Entry entry;
  };

  static std::uint64_t HashOf(const crfp_digest_t& fp);
  std::size_t Home(std::uint64_t hash) const { return hash & (slots_.size() - 1); }
  std::size_t Next(std::size_t at) const { return (at + 1) & (slots_.size() - 1); }
  std::size_t Locate(const crfp_digest_t& fp) const;
  void Place(std::uint64_t hash, Entry entry);
  void Grow();

  std::vector<Slot> slots_;  // a power of two, or none
  std::size_t count_ = 0;
};

}  // namespace Aldenta::Qnd::Morene::Zefs
