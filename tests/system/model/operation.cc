#include "tests/system/model/operation.h"

#include <array>
#include <ostream>
#include <random>
#include <utility>

namespace zefs::test {

namespace {

struct KindOf {
  Kind kind;
  const char* name;
  int weight;
};

// In the order of the enumerators. The weights say how often a kind is met.
constexpr std::array<KindOf, kKinds> kTable = {{
    {Kind::kInsertNode, "insert with node", 150},
    {Kind::kInsertKnown, "insert with id", 90},
    {Kind::kInsertBoth, "insert with node and id", 20},
    {Kind::kInsertNothing, "insert with neither", 12},
    {Kind::kInsertEmpty, "insert of nothing", 8},
    {Kind::kAppend, "append", 70},
    {Kind::kUpdate, "update of a found extent", 12},
    {Kind::kTruncate, "truncate", 22},
    {Kind::kSetFileSize, "set file size", 14},
    {Kind::kMakeReady, "node ready", 130},
    {Kind::kMakeAllReady, "all nodes ready", 16},
    {Kind::kFind, "find", 60},
    {Kind::kLowerBound, "lower bound", 60},
    {Kind::kFindCached, "lower bound in cache", 30},
    {Kind::kWalk, "walk", 20},
    {Kind::kWalkBack, "walk back", 10},
    {Kind::kSizes, "sizes", 20},
    {Kind::kPlan, "plan", 45},
    {Kind::kSetObjectId, "set object id", 16},
    {Kind::kListIds, "list ids", 14},
    {Kind::kRewriteIds, "rewrite ids", 10},
    {Kind::kReferences, "references", 14},
    {Kind::kBinaryReferences, "binary references", 14},
    {Kind::kFilter, "filter", 18},
    {Kind::kSetDoid, "set do id", 14},
    {Kind::kGetDoid, "get do id", 14},
    {Kind::kIsChanged, "is changed", 14},
    {Kind::kWritingNodes, "writing nodes", 14},
    {Kind::kBackfill, "backfill", 18},
    {Kind::kRefreshOffset, "refresh offset", 10},
    {Kind::kFlush, "flush", 60},
    {Kind::kForcedFlush, "forced flush", 30},
    {Kind::kFlushUnlocked, "flush, unlocked", 8},
    {Kind::kRefusedFlush, "refused flush", 3},
    {Kind::kFlushOverFailed, "flush with failing merge", 14},
    {Kind::kForgetNodes, "forget nodes", 2},
    {Kind::kMerge, "merge", 8},
    {Kind::kFailedMerge, "failed merge", 8},
    {Kind::kCommitFlag, "commit flag", 4},
    {Kind::kSave, "save", 3},
    {Kind::kSetVersion, "set version", 4},
    {Kind::kSnapshot, "snapshot", 5},
    {Kind::kMove, "move", 4},
    {Kind::kRemove, "remove", 1},
    {Kind::kReload, "reload", 7},
    {Kind::kKill, "kill", 3},
    {Kind::kCrash, "crash within", 8},
}};

// By chance alone a tmp database that holds something is rare: merges fail in a row, and what comes
// then goes over it.
constexpr std::array<Kind, 11> kOverTmp = {Kind::kFailedMerge,
                                           Kind::kInsertKnown,
                                           Kind::kInsertKnown,
                                           Kind::kFlushOverFailed,
                                           Kind::kFlushOverFailed,
                                           Kind::kInsertKnown,
                                           Kind::kFlushOverFailed,
                                           Kind::kWalk,
                                           Kind::kPlan,
                                           Kind::kFilter,
                                           Kind::kTruncate};
constexpr std::uint64_t kBurstOneIn = 50;

const std::vector<double>& Weights() {
  static const std::vector<double> weights = [] {
    std::vector<double> all;
    all.reserve(kTable.size());
    for (const KindOf& kind : kTable) {
      all.push_back(kind.weight);
    }
    return all;
  }();
  return weights;
}

/// Offsets and lengths of a program: a dense domain, on which writes meet all the time, and now and
/// then one far behind it.
class Places {
 public:
  explicit Places(std::mt19937_64* random)
      : random_(*random), domain_(1L << Below(9)), unit_(1L << (3 * Below(5))) {
    domain_ = std::max(domain_, 64L);
  }

  long At() {
    const long far = Below(40) == 0 ? (5L << 32) + (Below(4) << 40) : 0;
    return far + Below(domain_) * unit_;
  }
  long Length() {
    const long blocks = Below(6) == 0 ? Below(domain_ / 2) : Below(domain_ / 16 + 2);
    return (blocks + 1) * unit_ - (Below(8) == 0 && unit_ > 1 ? 1 : 0);
  }

 private:
  long Below(long end) { return std::uniform_int_distribution<long>(0, end - 1)(random_); }

  std::mt19937_64& random_;
  long domain_;
  long unit_;
};

Settings AnySettings(std::mt19937_64* random) {
  const auto below = [random](std::uint32_t end) {
    return std::uniform_int_distribution<std::uint32_t>(0, end - 1)(*random);
  };
  static const std::array<const char*, 4> kTypes = {"PROVISION", "INGEST", "GENERIC", "unknown"};
  Settings settings;
  settings.type = kTypes.at(below(4));
  settings.prefetch = below(2) == 0;
  settings.prefetchSpan = 1U << below(20);
  settings.bloom = below(4) != 0;
  settings.tracking = below(4) != 0;
  settings.trackingThreshold = below(12);
  settings.batchThreshold = below(3) == 0 ? below(12) : 1;
  settings.readyThreshold = below(5);
  settings.mergeEntries = 8 + below(100);
  settings.mergeCommits = 2 + below(12);
  settings.mergeBatch = 1 + below(20);
  return settings;
}

}  // namespace

const char* NameOf(Kind kind) {
  return kTable.at(static_cast<std::size_t>(kind)).name;
}

std::ostream& operator<<(std::ostream& out, const Operation& operation) {
  return out << NameOf(operation.kind) << ": at " << operation.at << ", length " << operation.length
             << ", pick " << operation.pick;
}

std::ostream& operator<<(std::ostream& out, const Program& program) {
  const Settings& settings = program.settings;
  out << "seed " << program.seed << ", type " << settings.type << ", prefetch " << settings.prefetch
      << " (span " << settings.prefetchSpan << "), bloom " << settings.bloom << ", offsets tracked "
      << settings.tracking << " (from " << settings.trackingThreshold << "), flush from "
      << settings.batchThreshold << " keys and " << settings.readyThreshold
      << " nodes, merge above " << settings.mergeEntries << " records or " << settings.mergeCommits
      << " commits in batches of " << settings.mergeBatch << '\n';
  for (std::size_t i = 0; i < program.operations.size(); ++i) {
    out << "  " << i << ". " << program.operations[i] << '\n';
  }
  return out;
}

Program AnyProgram(std::uint64_t seed, std::size_t length) {
  std::mt19937_64 random(seed);
  Program program;
  program.seed = seed;
  program.settings = AnySettings(&random);
  Places places(&random);
  std::discrete_distribution<std::size_t> kinds(Weights().begin(), Weights().end());
  program.operations.reserve(length);
  std::size_t inBurst = kOverTmp.size();
  for (std::size_t i = 0; i < length; ++i) {
    if (inBurst == kOverTmp.size() && random() % kBurstOneIn == 0) {
      inBurst = 0;
    }
    Operation operation;
    operation.kind = kTable.at(kinds(random)).kind;
    operation.at = places.At();
    operation.length = places.Length();
    operation.pick = static_cast<std::uint32_t>(random());
    if (inBurst < kOverTmp.size()) {
      operation.kind = kOverTmp.at(inBurst);
      operation.pick |= kForcedBit;
      inBurst += inBurst + 1 == kOverTmp.size() ? 1 : 1 + random() % 2;  // not always all of it
    }
    program.operations.push_back(operation);
  }
  return program;
}

}  // namespace zefs::test
