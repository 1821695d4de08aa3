#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "refhost/check/check_result.h"
#include "refhost/check/plain_copies.h"
#include "refhost/store/files.h"
#include "refhost/store/recount.h"
#include "refhost/store/segmenter.h"
#include "refhost/store/store_error.h"
#include "table/sys_exception.h"

namespace zefs::refhost {

/// Bytes per read and write of a check; a multiple of every segment size.
inline constexpr std::size_t kCheckBlockBytes = 4 * kMaxSegmentSize;

/// A file of a store, where it came from, and the plain copy that it has to equal.
struct CopiedFile {
  Files::FileId id;
  std::string path;
  PlainCopies::Copy copy;
};

/// Runs one step on a file. Damage that it finds, and an extent map that gives up, is a difference
/// at `offset`; a failure of the place where data is kept passes through.
template <typename Step>
std::optional<Difference> Attempt(const std::string& path, std::int64_t offset, const Step& step) {
  try {
    step();
  } catch (const DamageError& error) {
    return Difference{path, offset, error.what()};
  } catch (const Aldenta::Qnd::Morene::Zefs::SysException& error) {
    return Difference{path, offset,
                      "the extent map gave up with error " + std::to_string(error.code)};
  }
  return std::nullopt;
}

/// Compares the files of a store with their copies byte by byte, and what their tables say of their
/// references with a recount. Used once.
class Verifier {
 public:
  /// Nothing is owned. Figures and the first difference go to `*result`, whose logicalBytes is set.
  Verifier(TableKind kind, const Files* store, const PlainCopies* copies,
           const CheckProgress& progress, CheckResult* result)
      : kind_(kind),
        store_(*store),
        copies_(*copies),
        progress_(progress),
        result_(*result),
        stored_(new char[kCheckBlockBytes]),
        plain_(new char[kCheckBlockBytes]) {}

  /// Ends at the first difference.
  void Run(const std::vector<CopiedFile>& files);

 private:
  std::optional<Difference> CompareBytes(const CopiedFile& file);
  std::optional<Difference> CompareBlock(const CopiedFile& file, std::int64_t at);
  std::optional<Difference> CompareReferences(const CopiedFile& file);
  std::optional<Difference> CompareSums() const;
  void AddReferences(MappingTable& table);

  const TableKind kind_;
  const Files& store_;
  const PlainCopies& copies_;
  const CheckProgress& progress_;
  CheckResult& result_;
  std::unique_ptr<char[]> stored_;
  std::unique_ptr<char[]> plain_;
  std::uint64_t done_ = 0;
  ReferenceCounts recount_;  // over all tables
  // As tables in memory tell.
  std::map<std::uint64_t, std::uint64_t> bytesByDcid_;
  std::set<FingerprintText> fingerprints_;
};

}  // namespace zefs::refhost
