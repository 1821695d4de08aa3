#pragma once

#include <cstddef>
#include <cstring>
#include <unordered_map>

#include "host/fingerprint.h"
#include "refhost/store/container_store.h"

namespace zefs::refhost {

/// A fingerprint is evenly spread already: its first bytes are its hash.
struct FingerprintHash {
  std::size_t operator()(const crfp_digest_t& fp) const {
    std::size_t hash = 0;
    std::memcpy(&hash, fp.data(), sizeof hash);
    return hash;
  }
};

/// Which data is stored, and where: one location per fingerprint, in memory. Not synchronised.
class DedupIndex {
 public:
  /// The location of the object, or null. Valid as long as the index.
  const Location* Find(const crfp_digest_t& fp) const {
    const auto found = locations_.find(fp);
    return found == locations_.end() ? nullptr : &found->second;
  }

  /// Enters an object that is not there yet.
  void Insert(const crfp_digest_t& fp, const Location& where) { locations_.emplace(fp, where); }

  std::size_t size() const { return locations_.size(); }

 private:
  std::unordered_map<crfp_digest_t, Location, FingerprintHash> locations_;
};

}  // namespace zefs::refhost
