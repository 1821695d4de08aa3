#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <boost/filesystem/path.hpp>

#include "tests/persistent/mapping_lmdb_peer.h"
#include "tests/support/temp_dir.h"
#include "tests/system/stress/stress.h"
#include "tests/system/stress/stress_nodes.h"

namespace zefs::test::stress {

/// Random operations on one stored table. Each thread writes a stripe of the file of its own, so it
/// knows what must be there, and reads all of it. Every object is mapped at its own offset, so
/// whatever is visible anywhere has its offsets in step.
class StoredStress final : public Stress {
 public:
  /// With `prefetched` what is written inside a prefetched run may go unseen for a while, and only
  /// the form of what is read is checked in the rounds.
  StoredStress(const std::string& type, bool prefetched, std::uint64_t seed, int threads);
  ~StoredStress() override;

  /// Flushes all, merges, and compares everything with what must be there, in this life of the
  /// table and in the next.
  void ExpectTheModel();

  long flushes() const { return flushes_.load(); }
  long nodes() const;

 private:
  using CMappingLMDB = Aldenta::Qnd::Morene::Zefs::CMappingLMDB;
  using Peer = Aldenta::Qnd::Morene::Zefs::MappingLMDBTestPeer;
  using ObjectID = Aldenta::Qnd::Morene::Zefs::ObjectID;
  using Random = std::mt19937_64;

  static constexpr long kStripe = 192;
  static constexpr std::size_t kMostNodes = 200000;

  /// One write, by its number.
  struct Write {
    ObjectID oid;
    const StressNode* node = nullptr;  // null: the object was known at once
  };
  /// What one thread knows. Only this thread touches it in a round.
  struct Stripe {
    explicit Stripe(long start) : begin(start), byte(kStripe, 0), nodes(kMostNodes) {}
    long begin;
    std::vector<std::uint32_t> byte;  // number of the write that is visible; 0: none
    std::vector<Write> writes{1};
    NodesOfThread nodes;
    std::vector<DCOffset> offsets;  // taken, and not handed back yet
  };

  void Prepare(const Round& round) override;
  void Step(int thread, const std::string& operation, Random* random) override;
  bool Beside(Random* random) override;
  void Alone(Random* random) override;
  std::vector<std::string> Favourites() const override;
  unsigned int WeightOf(const std::string& operation) const override;

  void Load();
  void Destroy();
  void WriteSome(Stripe* stripe, bool append, Random* random);
  void ReadStripe(Stripe* stripe);
  void ReadAnywhere(const std::string& operation, Random* random);
  void ExpectVisible(const Stripe& stripe, long at, const CMappingLMDB::iterator& found);
  void Flush(bool force, bool keep, Random* random);
  void Return(const std::set<void*>& released);
  void FlushWithoutANode();
  void ExpectAccounted();
  void Plan(Random* random);
  void ListIds(unsigned long start);
  void RewriteIds(Stripe* stripe, Random* random);
  void Refer(const std::string& operation);
  void TakeSnapshot(int thread);
  void StepOnTable(Stripe* stripe, const std::string& operation, Random* random);
  void StepOnOffsets(Stripe* stripe, const std::string& operation, Random* random);
  void Truncate(long size);
  void FlushAll();
  void MergeAll();
  std::string Directory() const { return (dir_ / "table").string(); }
  long End() const { return kStripe * threads(); }
  Stripe& StripeOf(int thread) { return *stripes_[static_cast<std::size_t>(thread)]; }

  std::string type_;
  bool prefetched_;
  const TempDir dir_;
  StressCache cache_;
  std::vector<std::unique_ptr<Stripe>> stripes_;
  std::unique_ptr<CMappingLMDB> table_;
  std::atomic<long> flushes_{0};
  std::atomic<long> snapshots_{0};
};

}  // namespace zefs::test::stress
