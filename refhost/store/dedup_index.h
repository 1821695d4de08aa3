#pragma once

#include <cstddef>
#include <cstring>
#include <optional>
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

/// Which data is stored, and where: one location per fingerprint.
class ObjectIndex {
 public:
  virtual ~ObjectIndex() = default;

  /// The location of the object, if it is stored.
  virtual std::optional<Location> Find(const crfp_digest_t& fp) const = 0;

  /// Enters an object that is not there yet.
  virtual void Insert(const crfp_digest_t& fp, const Location& where) = 0;
};

/// An index in memory. Not synchronised.
class DedupIndex final : public ObjectIndex {
 public:
  using Locations = std::unordered_map<crfp_digest_t, Location, FingerprintHash>;

  std::optional<Location> Find(const crfp_digest_t& fp) const override {
    const auto found = locations_.find(fp);
    return found == locations_.end() ? std::nullopt : std::optional<Location>(found->second);
  }
  void Insert(const crfp_digest_t& fp, const Location& where) override {
    locations_.emplace(fp, where);
  }

  /// Enters an object in place of any location that it has.
  void Replace(const crfp_digest_t& fp, const Location& where) { locations_[fp] = where; }

  std::size_t size() const { return locations_.size(); }
  const Locations& locations() const { return locations_; }

 private:
  Locations locations_;
};

}  // namespace zefs::refhost
