#include "table/fingerprint_index.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace Aldenta::Qnd::Morene::Zefs {

namespace {

constexpr std::size_t kFirstSlots = 16;

}  // namespace

std::uint64_t FingerprintIndex::HashOf(const crfp_digest_t& fp) {
  std::uint64_t hash = 0;
  std::memcpy(&hash, fp.data(), sizeof(hash));
  // Mixed, as a host may use fingerprints that are not random in each bit (the finalizer of
  // SplitMix64, Steele, Lea and Flood 2014).
  hash = (hash ^ (hash >> 30)) * 0xbf58476d1ce4e5b9U;
  hash = (hash ^ (hash >> 27)) * 0x94d049bb133111ebU;
  hash ^= hash >> 31;
  return hash == 0 ? 1 : hash;
}

/// The slot of `fp`; the number of slots if it is not in here.
std::size_t FingerprintIndex::Locate(const crfp_digest_t& fp) const {
  if (slots_.empty()) {
    return 0;
  }
  const std::uint64_t hash = HashOf(fp);
  for (std::size_t at = Home(hash); slots_[at].hash != 0; at = Next(at)) {
    if (slots_[at].hash == hash && slots_[at].entry->first == TextOf(fp)) {
      return at;
    }
  }
  return slots_.size();
}

void FingerprintIndex::PrefetchSlot(const crfp_digest_t& fp) const {
  if (!slots_.empty()) {
    __builtin_prefetch(&slots_[Home(HashOf(fp))]);
  }
}

void FingerprintIndex::PrefetchEntry(const crfp_digest_t& fp) const {
  if (slots_.empty()) {
    return;
  }
  const std::uint64_t hash = HashOf(fp);
  const Slot& slot = slots_[Home(hash)];
  if (slot.hash == hash) {
    __builtin_prefetch(slot.entry->first.data());
    __builtin_prefetch(&slot.entry->second);
  }
}

const FingerprintIndex::Entry* FingerprintIndex::Find(const crfp_digest_t& fp) const {
  const std::size_t at = Locate(fp);
  return at == slots_.size() ? nullptr : &slots_[at].entry;
}

void FingerprintIndex::Insert(const crfp_digest_t& fp, Entry entry) {
  if (4 * (count_ + 1) > 3 * slots_.size()) {
    Grow();
  }
  Place(HashOf(fp), entry);
  ++count_;
}

void FingerprintIndex::Place(std::uint64_t hash, Entry entry) {
  std::size_t at = Home(hash);
  while (slots_[at].hash != 0) {
    at = Next(at);
  }
  slots_[at] = Slot{hash, entry};
}

void FingerprintIndex::Grow() {
  std::vector<Slot> old(std::max(kFirstSlots, 2 * slots_.size()));
  std::swap(old, slots_);
  for (const Slot& slot : old) {
    if (slot.hash != 0) {
      Place(slot.hash, slot.entry);
    }
  }
}

void FingerprintIndex::Erase(const crfp_digest_t& fp, Entry entry) {
  if (slots_.empty()) {
    return;
  }
  const std::uint64_t hash = HashOf(fp);
  std::size_t hole = Home(hash);
  while (slots_[hole].hash != hash || slots_[hole].entry != entry) {
    if (slots_[hole].hash == 0) {
      return;
    }
    hole = Next(hole);
  }
  // Whatever the probing would now miss moves into the hole.
  for (std::size_t at = Next(hole); slots_[at].hash != 0; at = Next(at)) {
    const std::size_t home = Home(slots_[at].hash);
    const bool reachable = hole <= at ? hole < home && home <= at : hole < home || home <= at;
    if (!reachable) {
      slots_[hole] = slots_[at];
      hole = at;
    }
  }
  slots_[hole].hash = 0;
  --count_;
}

}  // namespace Aldenta::Qnd::Morene::Zefs
