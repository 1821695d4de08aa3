#include "refhost/index/lasting_index.h"

#include <algorithm>
#include <cstring>
#include <string_view>
#include <vector>

#include "refhost/store/store_error.h"
#include "table/fingerprint.h"

namespace zefs::refhost {

namespace {

/// Address space for some billion objects.
constexpr std::size_t kMapBytes = std::size_t{256} << 30;

static_assert(sizeof(Location) == 16, "stored as it is");

std::string_view KeyOf(const crfp_digest_t& fp) {
  return {reinterpret_cast<const char*>(fp.data()), fp.size()};
}

Location LocationIn(std::string_view value, const crfp_digest_t& fp) {
  Location where{};
  if (value.size() != sizeof where) {
    throw DamageError(std::string("the index entry of ") +
                      Aldenta::Qnd::Morene::Zefs::TextOf(fp).data() + " is " +
                      std::to_string(value.size()) + " bytes long");
  }
  std::memcpy(&where, value.data(), sizeof where);
  return where;
}

}  // namespace

LastingIndex::LastingIndex(const std::string& path) : file_(path, kMapBytes) {}

std::optional<Location> LastingIndex::Find(const crfp_digest_t& fp) const {
  if (const auto fresh = fresh_.Find(fp); fresh.has_value()) {
    return fresh;
  }
  const std::optional<std::string> stored = file_.Get(KeyOf(fp));
  if (!stored.has_value()) {
    return std::nullopt;
  }
  return LocationIn(*stored, fp);
}

void LastingIndex::Insert(const crfp_digest_t& fp, const Location& where) {
  fresh_.Insert(fp, where);
}

void LastingIndex::Commit() {
  if (fresh_.size() == 0) {
    return;
  }
  std::vector<LmdbFile::Change> changes;
  changes.reserve(fresh_.size());
  for (const auto& [fp, where] : fresh_.locations()) {
    std::string value(sizeof where, '\0');
    std::memcpy(value.data(), &where, sizeof where);
    changes.push_back({std::string(KeyOf(fp)), std::move(value)});
  }
  file_.Apply(changes);
  fresh_ = {};
}

void LastingIndex::Remove(const std::vector<crfp_digest_t>& fps) {
  Commit();
  if (fps.empty()) {
    return;
  }
  std::vector<LmdbFile::Change> changes;
  changes.reserve(fps.size());
  for (const crfp_digest_t& fp : fps) {
    changes.push_back({std::string(KeyOf(fp)), std::nullopt});
  }
  file_.Apply(changes);
}

void LastingIndex::ForEach(
    const std::function<void(const crfp_digest_t& fp, const Location& where)>& take) const {
  file_.ForEach([&](std::string_view key, std::string_view value) {
    crfp_digest_t fp{};
    std::memcpy(fp.data(), key.data(), std::min(key.size(), fp.size()));
    take(fp, LocationIn(value, fp));
  });
}

}  // namespace zefs::refhost
