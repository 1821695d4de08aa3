#include "refhost/durable/catalogue.h"

#include <algorithm>
#include <cstring>
#include <string_view>

#include "refhost/host/sha256.h"
#include "refhost/store/store_error.h"

namespace zefs::refhost {

namespace {

constexpr std::size_t kMapBytes = std::size_t{16} << 30;

/// A value of the database: this, and the name behind it. Keys are the digests of names, which may
/// be longer than a key.
struct Record {
  std::uint64_t table;
  std::int64_t size;
  crfp_digest_t digest;
  std::uint64_t state;
};
static_assert(sizeof(Record) == 56, "stored as it is");

// Bits of the state. The volume of a move is there plus 1.
constexpr std::uint64_t kChanging = 1;
constexpr std::uint64_t kCut = 2;
constexpr unsigned int kMoveShift = 16;
constexpr std::uint64_t kVolumeMask = 0xffff;
constexpr std::uint64_t kKnownBits = kChanging | kCut | kVolumeMask << kMoveShift;

std::uint64_t StateOf(const CatalogueEntry& entry) {
  const std::uint64_t move = entry.movingTo.has_value() ? *entry.movingTo + 1 : 0;
  return (entry.changing ? kChanging : 0) | (entry.cut ? kCut : 0) | move << kMoveShift;
}

CatalogueEntry EntryOf(const Record& record) {
  CatalogueEntry entry;
  entry.table = record.table;
  entry.size = record.size;
  entry.digest = record.digest;
  entry.changing = (record.state & kChanging) != 0;
  entry.cut = (record.state & kCut) != 0;
  if (const std::uint64_t move = record.state >> kMoveShift & kVolumeMask; move != 0) {
    entry.movingTo = move - 1;
  }
  return entry;
}

std::string KeyOf(const std::string& name) {
  const crfp_digest_t digest = Sha256(name.data(), name.size());
  return {digest.begin(), digest.end()};
}

}  // namespace

Catalogue::Catalogue(const std::string& path) : file_(path, kMapBytes) {
  file_.ForEach([&](std::string_view key, std::string_view value) {
    Record record{};
    if (value.size() >= sizeof record) {
      std::memcpy(&record, value.data(), sizeof record);
    }
    const std::string name(value.substr(std::min(value.size(), sizeof record)));
    if (name.empty() || KeyOf(name) != key || (record.state & ~kKnownBits) != 0) {
      throw DamageError("the catalogue " + path + " has an entry that cannot be read");
    }
    entries_.emplace(name, EntryOf(record));
  });
}

const CatalogueEntry* Catalogue::Find(const std::string& name) const {
  const auto found = entries_.find(name);
  return found == entries_.end() ? nullptr : &found->second;
}

void Catalogue::Commit(const Entries& entered, const std::vector<std::string>& forgotten) {
  std::vector<LmdbFile::Change> changes;
  for (const auto& [name, entry] : entered) {
    const Record record{entry.table, entry.size, entry.digest, StateOf(entry)};
    std::string value(sizeof record, '\0');
    std::memcpy(value.data(), &record, sizeof record);
    changes.push_back({KeyOf(name), value + name});
  }
  for (const std::string& name : forgotten) {
    changes.push_back({KeyOf(name), std::nullopt});
  }
  file_.Apply(changes);
  for (const auto& [name, entry] : entered) {
    entries_[name] = entry;
  }
  for (const std::string& name : forgotten) {
    entries_.erase(name);
  }
}

}  // namespace zefs::refhost
