#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "refhost/check/check_result.h"
#include "refhost/store/container_store.h"
#include "refhost/store/files.h"
#include "refhost/store/segmenter.h"

namespace zefs::refhost {

inline constexpr std::uint64_t kDefaultCheckSeed = 1;

struct CheckOptions {
  std::vector<std::string> paths;  ///< files, and directories taken with all below them
  std::string storeDirectory;      ///< as WorkDir takes it
  bool keep = false;               ///< the store is not removed at the end
  std::uint64_t segmentSize = kDefaultSegmentSize;
  std::uint64_t seed = kDefaultCheckSeed;  ///< decides where and how files are changed
  std::uint32_t containerBytes = kDefaultContainerBytes;
  TableKind tables = TableKind::kPersistent;
};

/// Called between the last change and the verification.
using BeforeVerify = std::function<void(Files*)>;

/// Stores all files, changes each, reads every byte back and compares it with a plain copy that
/// went through the same changes, and recounts the references of every table. Files that cannot be
/// read are skipped; of one that shrinks while it is read that much is taken as was read. Throws
/// StoreError if the store fails or no file could be read, std::invalid_argument for an option that
/// makes no sense. What the store made is removed at the end, whatever the outcome, unless it is to
/// be kept.
CheckResult RunCheck(const CheckOptions& options, const CheckProgress& progress = {},
                     const BeforeVerify& beforeVerify = {});

/// The same, into `*result`, which is empty before. When it throws, `result->skipped` names the
/// files that were skipped up to there, and `result->storePath` the store if one was made.
void RunCheckInto(const CheckOptions& options, const CheckProgress& progress,
                  const BeforeVerify& beforeVerify, CheckResult* result);

}  // namespace zefs::refhost
