#pragma once

#include <functional>
#include <string>
#include <vector>

#include "refhost/index/lmdb_file.h"
#include "refhost/store/dedup_index.h"

namespace zefs::refhost {

/// The index of a store that lasts: in a database, with what is new in memory until it is
/// committed. Failures are StoreErrors, a damaged entry is a DamageError. Not synchronised.
class LastingIndex final : public ObjectIndex {
 public:
  explicit LastingIndex(const std::string& path);

  std::optional<Location> Find(const crfp_digest_t& fp) const override;
  void Insert(const crfp_digest_t& fp, const Location& where) override;

  /// The object lies elsewhere now. As an insertion it stays in memory until the commit, and until
  /// then it counts twice in size().
  void Replace(const crfp_digest_t& fp, const Location& where) { fresh_.Replace(fp, where); }

  /// Writes what was inserted, in one synced transaction. What it refers to is on the disk already.
  /// After a failure it can be tried again.
  void Commit();

  /// Commits, and forgets objects in one synced transaction: all of them or none.
  void Remove(const std::vector<crfp_digest_t>& fps);

  /// Calls `take` for all that is committed, as of one moment. `take` changes nothing here.
  void ForEach(
      const std::function<void(const crfp_digest_t& fp, const Location& where)>& take) const;

  std::size_t size() const { return file_.size() + fresh_.size(); }

 private:
  LmdbFile file_;
  DedupIndex fresh_;  // not committed yet
};

}  // namespace zefs::refhost
