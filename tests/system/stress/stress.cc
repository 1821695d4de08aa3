#include "tests/system/stress/stress.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <thread>

#ifdef ZEFS_CHECK_LOCKS
#include "tests/support/checked_locks/lock_checker.h"
#endif

namespace zefs::test::stress {

Round Choose(const std::vector<Operation>& operations, const std::string& first, int threads,
             std::mt19937_64* random) {
  std::vector<const Operation*> order;
  for (const Operation& operation : operations) {
    order.push_back(&operation);
  }
  std::shuffle(order.begin(), order.end(), *random);
  std::stable_partition(order.begin(), order.end(),
                        [&](const Operation* operation) { return operation->name == first; });
  Round round;
  round.ofThread.resize(static_cast<std::size_t>(threads));
  std::vector<const Operation*> chosen;
  for (const Operation* operation : order) {
    // What wants the table to itself does not go with an operation that touches nothing, either.
    const bool fits = std::all_of(chosen.begin(), chosen.end(), [&](const Operation* other) {
      return MayRunTogether(*operation, *other).permitted;
    });
    const bool alone = !MayRunTogether(*operation, Find(operations, "end")).permitted;
    if (!fits || alone) {
      continue;
    }
    chosen.push_back(operation);
    round.all.insert(operation->name);
    const bool severalTimes = MayRunTogether(*operation, *operation).permitted;
    const std::size_t only = (*random)() % round.ofThread.size();
    for (std::size_t thread = 0; thread < round.ofThread.size(); ++thread) {
      if (severalTimes || thread == only) {
        round.ofThread[thread].push_back(operation->name);
      }
    }
  }
  return round;
}

Stress::Stress(const std::vector<Operation>& operations, std::uint64_t seed, int threads)
    : operations_(operations), random_(seed), threads_(threads) {}

void Stress::Run(int rounds, int steps) {
  const std::vector<std::string> favourites = Favourites();
  for (int i = 0; i < rounds; ++i) {
    // Every third round is built around an operation drawn from all.
    const std::string first = random_() % 3 == 0 ? operations_[random_() % operations_.size()].name
                                                 : favourites[random_() % favourites.size()];
    const Round round = Choose(operations_, first, threads_, &random_);
    Prepare(round);
    std::atomic<bool> done{false};
    std::vector<std::map<std::string, long>> counts(static_cast<std::size_t>(threads_));
    std::vector<std::thread> running;
    for (int thread = 0; thread < threads_; ++thread) {
      const auto index = static_cast<std::size_t>(thread);
      running.emplace_back([this, &round, &counts, thread, index, steps, seed = random_()] {
        RunThread(thread, round.ofThread[index], steps, seed, &counts[index]);
      });
    }
    std::thread beside([this, &done, seed = random_()] {
      std::mt19937_64 random(seed);
      while (!done.load(std::memory_order_relaxed)) {
        if (!Beside(&random)) {
          std::this_thread::yield();
        }
      }
    });
    for (std::thread& thread : running) {
      thread.join();
    }
    done = true;
    beside.join();
    for (const auto& ofThread : counts) {
      for (const auto& [operation, times] : ofThread) {
        Count(operation, times);
      }
    }
    Alone(&random_);
  }
}

void Stress::RunThread(int thread, const std::vector<std::string>& operations, int steps,
                       std::uint64_t seed, std::map<std::string, long>* counts) {
  std::mt19937_64 random(seed);
  if (operations.empty()) {
    return;
  }
  for (int i = 0; i < steps;) {
    const std::string& operation = operations[random() % operations.size()];
    if (random() % 16 >= WeightOf(operation)) {
      continue;
    }
    Step(thread, operation, &random);
    ++(*counts)[operation];
    steps_.fetch_add(1, std::memory_order_relaxed);
    ++i;
  }
}

struct Watchdog::State {
  std::mutex mutex;
  std::condition_variable wake;
  bool over = false;
  std::vector<const Stress*> watched;
  std::thread thread;

  long Steps() const {
    long steps = 0;
    for (const Stress* stress : watched) {
      steps += stress->steps();
    }
    return steps;
  }

  void Watch() {
    constexpr std::chrono::minutes kPatience{3};
    std::unique_lock<std::mutex> lock(mutex);
    long before = -1;
    while (!over) {
      const long now = Steps();
      if (now == before) {
        std::fprintf(stderr, "nothing has moved since %ld operations\n", now);
#ifdef ZEFS_CHECK_LOCKS
        locks::TellHolders();
#endif
        std::abort();
      }
      before = now;
      wake.wait_for(lock, kPatience, [this] { return over; });
    }
  }
};

Watchdog::Watchdog(const std::vector<const Stress*>& watched) : state_(new State) {
#ifdef ZEFS_CHECK_LOCKS
  locks::EndAtFindings();
#endif
  state_->watched = watched;
  state_->thread = std::thread([this] { state_->Watch(); });
}

Watchdog::~Watchdog() {
  {
    const std::lock_guard<std::mutex> lock(state_->mutex);
    state_->over = true;
  }
  state_->wake.notify_all();
  state_->thread.join();
  delete state_;
}

int Rounds(int usual) {
  const char* const given = std::getenv("ZEFS_STRESS_ROUNDS");
  return given == nullptr ? usual : std::atoi(given);
}

}  // namespace zefs::test::stress
