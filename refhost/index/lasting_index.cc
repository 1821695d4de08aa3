#include "refhost/index/lasting_index.h"

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
  Location where{};
  if (stored->size() != sizeof where) {
    throw DamageError(std::string("the index entry of ") +
                      Aldenta::Qnd::Morene::Zefs::TextOf(fp).data() + " is " +
                      std::to_string(stored->size()) + " bytes long");
  }
  std::memcpy(&where, stored->data(), sizeof where);
  return where;
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

}  // namespace zefs::refhost
