#include "refhost/durable/store_verifier.h"

#include <algorithm>

#include "refhost/host/sha256.h"
#include "refhost/store/recount.h"
#include "refhost/store/store_error.h"
#include "table/extent.h"
#include "table/fingerprint.h"

namespace zefs::refhost {

namespace {

using Aldenta::Qnd::Morene::Zefs::Ext;
using Aldenta::Qnd::Morene::Zefs::TextOf;

}  // namespace

StoreVerifier::StoreVerifier(DurableStore* store, const StoreProgress& progress)
    : store_(*store), progress_(progress), block_(kMaxSegmentSize, '\0') {}

void StoreVerifier::Run(StoreVerification* result) {
  result_ = result;
  const Catalogue::Entries entries = store_.Catalogued();
  for (const auto& [name, entry] : entries) {
    total_ += static_cast<std::uint64_t>(entry.size);
  }
  for (const auto& [name, entry] : entries) {
    try {
      VerifyFile(name, entry);
    } catch (const DamageError& damage) {
      result_->problems.push_back({name, damage.what()});
    }
    ++result_->files;
  }
  result_->objects = sound_.size();
}

void StoreVerifier::VerifyFile(const std::string& name, const CatalogueEntry& entry) {
  const std::int64_t size = store_.SizeOf(name);
  if (entry.changing) {
    ++result_->changing;
  } else if (size != entry.size) {
    throw DamageError("it has " + std::to_string(size) + " bytes, at its last sync it had " +
                      std::to_string(entry.size));
  }
  VerifyMap(name, size);
  VerifyBytes(name, entry);
}

void StoreVerifier::VerifyMap(const std::string& name, std::int64_t size) {
  store_.WithTable(name, [&](MappingTable& table) {
    if (const std::string wrong = ShapeDifference(table, size); !wrong.empty()) {
      throw DamageError(wrong);
    }
    const auto behind = table.end();
    for (auto it = table.begin(); it != behind; ++it) {
      try {
        VerifyExtent(*it);
      } catch (const DamageError& damage) {
        throw DamageError("extent [" + std::to_string(it->getSOff()) + ", " +
                          std::to_string(it->getEOff()) + "): " + damage.what());
      }
      ++result_->extents;
    }
  });
}

void StoreVerifier::VerifyExtent(Ext& ext) {
  const DataCacheNode::ObjectID id = ext.getObjectID();
  const std::string object = std::string("object ") + TextOf(id.fp).data();
  const Location where = store_.objects().Locate(id);
  // While a compaction is unfinished the offsets of extents mean nothing, and nobody reads by them.
  if (!store_.objects().byFingerprint() && ext.getDCOffset() >= 0 &&
      static_cast<std::uint32_t>(ext.getDCOffset()) != where.offset) {
    throw DamageError(object + " lies at " + std::to_string(where.offset) +
                      " of its container, not at " + std::to_string(ext.getDCOffset()));
  }
  const std::int64_t reach = ext.getObjOff() + (ext.getEOff() - ext.getSOff());
  if (ext.getObjOff() < 0 || reach > where.length) {
    throw DamageError(object + " has " + std::to_string(where.length) + " bytes, up to " +
                      std::to_string(reach) + " are wanted");
  }
  if (sound_.count(id.fp) != 0) {
    return;
  }
  block_.resize(std::max<std::size_t>(block_.size(), where.length));
  store_.objects().Read(id, -1, 0, where.length, block_.data());
  if (const crfp_digest_t found = Sha256(block_.data(), where.length); found != id.fp) {
    throw DamageError(object + " has the fingerprint " + TextOf(found).data());
  }
  sound_.insert(id.fp);
}

void StoreVerifier::VerifyBytes(const std::string& name, const CatalogueEntry& entry) {
  Sha256Hasher hasher;
  std::int64_t at = 0;
  for (;;) {
    const std::size_t got = store_.Read(name, at, block_.data(), block_.size());
    if (got == 0) {
      break;
    }
    hasher.Update(block_.data(), got);
    at += static_cast<std::int64_t>(got);
    result_->bytes += got;
    if (progress_) {
      progress_("verify", std::min(result_->bytes, total_), total_);
    }
  }
  const crfp_digest_t digest = hasher.Finish();
  if (!entry.changing && digest != entry.digest) {
    throw DamageError(std::string("its digest is ") + TextOf(digest).data() +
                      ", at its last sync it was " + TextOf(entry.digest).data());
  }
}

}  // namespace zefs::refhost
