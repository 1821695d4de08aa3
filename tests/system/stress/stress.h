#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "tests/system/stress/permitted.h"

namespace zefs::test::stress {

/// What the threads of one round may do: for each thread the operations that it draws from. Any two
/// that may meet are permitted together; nothing else keeps the threads apart.
struct Round {
  std::vector<std::vector<std::string>> ofThread;
  std::set<std::string> all;
};

/// Takes operations at random as long as they go with those taken before, `first` at the front. One
/// that does not go with itself is for one thread.
Round Choose(const std::vector<Operation>& operations, const std::string& first, int threads,
             std::mt19937_64* random);

/// Rounds of random operations on one table by several threads at once, and between the rounds,
/// when nobody is at work, those that want the table to themselves. Threads of a round are not
/// synchronised with each other in any way, so a race shows to the thread sanitizer.
class Stress {
 public:
  Stress(const std::vector<Operation>& operations, std::uint64_t seed, int threads);
  virtual ~Stress() = default;
  Stress(const Stress&) = delete;
  Stress& operator=(const Stress&) = delete;

  void Run(int rounds, int steps);

  long steps() const { return steps_.load(); }
  /// How often each operation has run.
  const std::map<std::string, long>& counts() const { return counts_; }

 protected:
  /// Before a round, alone.
  virtual void Prepare(const Round& round) = 0;
  /// One operation, by the thread of this number.
  virtual void Step(int thread, const std::string& operation, std::mt19937_64* random) = 0;
  /// What the host does beside the threads of a round, over and over. False: nothing for now.
  virtual bool Beside(std::mt19937_64* random) = 0;
  /// After a round, alone: checks, and operations that want the table to themselves.
  virtual void Alone(std::mt19937_64* random) = 0;
  /// Operations that rounds are built around.
  virtual std::vector<std::string> Favourites() const = 0;
  /// How likely an operation is drawn, 1 to 16.
  virtual unsigned int WeightOf(const std::string& operation) const = 0;

  void Count(const std::string& operation, long times = 1) { counts_[operation] += times; }
  int threads() const { return threads_; }

 private:
  void RunThread(int thread, const std::vector<std::string>& operations, int steps,
                 std::uint64_t seed, std::map<std::string, long>* counts);

  const std::vector<Operation>& operations_;
  std::mt19937_64 random_;
  int threads_;
  std::atomic<long> steps_{0};
  std::map<std::string, long> counts_;
};

/// Ends the process, with what everybody holds where that is known, when nothing has moved for
/// minutes: a test that waits for ever tells nothing. So does a lock taken out of its order, where
/// that is watched.
class Watchdog {
 public:
  explicit Watchdog(const std::vector<const Stress*>& watched);
  ~Watchdog();
  Watchdog(const Watchdog&) = delete;
  Watchdog& operator=(const Watchdog&) = delete;

 private:
  struct State;
  State* state_;
};

/// Rounds of a run: ZEFS_STRESS_ROUNDS sets another number.
int Rounds(int usual);

}  // namespace zefs::test::stress
