#include "tests/system/model/soak.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <iostream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <unistd.h>
#include <vector>

#include <sys/wait.h>

#include "tests/system/model/minimise.h"
#include "tests/system/model/shared_memory.h"
#include "tests/system/model/stripes.h"

namespace zefs::test {

namespace {

using Clock = std::chrono::steady_clock;

volatile std::sig_atomic_t interrupted = 0;

void Interrupt(int /*signal*/) {
  interrupted = 1;
}

/// An interrupt ends the run and not the process, for the life of this object.
class InterruptEndsTheRun {
 public:
  InterruptEndsTheRun() {
    interrupted = 0;
    struct sigaction action {};
    action.sa_handler = Interrupt;
    action.sa_flags = SA_RESTART;  // the calls of the tables go on
    for (std::size_t i = 0; i < kSignals; ++i) {
      ::sigaction(kWhich[i], &action, &before_[i]);
    }
  }
  ~InterruptEndsTheRun() {
    for (std::size_t i = 0; i < kSignals; ++i) {
      ::sigaction(kWhich[i], &before_[i], nullptr);
    }
  }
  InterruptEndsTheRun(const InterruptEndsTheRun&) = delete;
  InterruptEndsTheRun& operator=(const InterruptEndsTheRun&) = delete;

 private:
  static constexpr std::size_t kSignals = 2;
  static constexpr int kWhich[kSignals] = {SIGINT, SIGTERM};
  struct sigaction before_[kSignals] {};
};

struct Shared {
  Tally tally;
  std::atomic<std::uint64_t> next{0};  ///< number of the next program
  std::atomic<bool> stop{false};
};

class Soaking {
 public:
  Soaking(const SoakOptions& options, const TableMakers& makers, bool isTerminal, std::ostream* out)
      : options_(options), makers_(makers), isTerminal_(isTerminal), out_(*out) {}

  bool Run() {
    const InterruptEndsTheRun interrupts;
    out_ << "seed " << options_.seed << ", " << options_.jobs << " processes" << std::endl;
    std::vector<pid_t> workers;
    for (unsigned int i = 0; i < options_.jobs; ++i) {
      const pid_t child = ::fork();
      if (child == -1) {
        throw std::runtime_error("cannot start a child process");
      }
      if (child == 0) {
        Work();
        ::_exit(0);
      }
      workers.push_back(child);
    }
    bool well = true;
    for (const pid_t worker : workers) {
      int status = 0;
      while (::waitpid(worker, &status, WNOHANG) == 0) {
        Tell();
        ::usleep(kTick);
        if (interrupted != 0) {
          shared_->stop = true;  // for those that were not
        }
      }
      well = well && WIFEXITED(status) && WEXITSTATUS(status) == 0;
    }
    told_ = -kSeldom;
    Tell();
    if (isTerminal_) {
      out_ << '\n';
    }
    Summary();
    return well && shared_->tally.differences == 0;
  }

 private:
  static constexpr useconds_t kTick = 100'000;
  static constexpr std::uint64_t kStripesEvery = 8;  // programs
  static constexpr double kOften = 0.5;              // seconds from one line to the next
  static constexpr double kSeldom = 10;

  /// One process: takes the next program as long as there is one.
  void Work() {
    while (!IsOver()) {
      const std::uint64_t number = shared_->next++;
      if (options_.programs != 0 && number >= options_.programs) {
        return;
      }
      const Program program = AnyProgram(options_.seed + number, options_.length);
      const auto difference = RunProgram(program, makers_, &shared_->tally);
      if (difference) {
        shared_->stop = true;
        shared_->tally.differences += 1;
        TellDifference(program, *difference);
      } else if (number % kStripesEvery == 0) {
        BesideEachOther(program.seed);
      }
    }
  }

  /// Several threads at once.
  void BesideEachOther(std::uint64_t seed) {
    const auto difference = RunStripesInChild(seed, makers_, &shared_->tally);
    if (difference) {
      shared_->stop = true;
      shared_->tally.differences += 1;
      Write("\nDIFFERENCE in the threads of seed " + std::to_string(seed) + ": " + *difference +
            "\nagain: zefs-soak --seed " + std::to_string(seed) + " --programs 1\n");
    }
  }

  bool IsOver() const {
    return interrupted != 0 || shared_->stop ||
           (options_.minutes > 0 && Seconds() > options_.minutes * 60);
  }
  double Seconds() const { return std::chrono::duration<double>(Clock::now() - begun_).count(); }

  void TellDifference(const Program& program, const std::string& difference) {
    std::ostringstream text;
    text << "\nDIFFERENCE in the program of seed " << program.seed << ": " << difference
         << "\nmade shorter...\n";
    Write(text.str());
    SharedWithChildren<Tally> apart;
    std::string last = difference;
    const Program shorter = Minimised(
        program,
        [&](const Program& candidate) {
          const auto found = RunProgram(candidate, makers_, &*apart);
          last = found ? *found : last;
          return found.has_value();
        },
        interrupted != 0 ? 0 : options_.tries);
    text.str("");
    text << last << "\n"
         << shorter << "again: zefs-soak --seed " << program.seed << " --programs 1 --length "
         << options_.length << '\n';
    Write(text.str());
  }

  /// As one piece, beside what other processes write.
  void Write(const std::string& text) { out_ << text << std::flush; }

  void Tell() {
    const double now = Seconds();
    const double interval = isTerminal_ ? kOften : kSeldom;
    if (now - told_ < interval) {
      return;
    }
    told_ = now;
    const Tally& tally = shared_->tally;
    if (isTerminal_) {
      out_ << "\r\x1b[K";
    }
    out_ << static_cast<long>(now) << " s: " << tally.programs << " programs, " << tally.operations
         << " operations, " << tally.compares << " compares, " << tally.flushes << " flushes, "
         << tally.merges << " merges, " << tally.reloads << " loads, " << tally.crashes
         << " crashes, " << tally.differences << " differences";
    if (!isTerminal_) {
      out_ << '\n';
    }
    out_ << std::flush;
  }

  void Summary() {
    const Tally& tally = shared_->tally;
    const double seconds = Seconds();
    out_ << static_cast<long>(seconds) << " s, "
         << static_cast<long>(static_cast<double>(tally.operations) / seconds)
         << " operations a second\n";
    const auto figure = [this](const std::atomic<std::uint64_t>& count, const char* kind) {
      out_ << "figure " << count << ' ' << kind << '\n';
    };
    figure(tally.programs, "programs on two tables and one model");
    figure(tally.operations, "operations on two tables and one model");
    figure(tally.compares, "answers compared with the model");
    figure(tally.flushes, "flushes under the model");
    figure(tally.merges, "merges under the model");
    figure(tally.reloads, "loads under the model");
    figure(tally.crashes, "kills under the model");
    figure(tally.readings, "look-ups beside writers under the model");
    figure(tally.differences, "differences between tables and model");
    out_ << std::flush;
  }

  const SoakOptions& options_;
  const TableMakers& makers_;
  const bool isTerminal_;
  std::ostream& out_;
  const Clock::time_point begun_ = Clock::now();
  double told_ = 0;
  SharedWithChildren<Shared> shared_;
};

}  // namespace

bool Soak(const SoakOptions& options, const TableMakers& makers, bool isTerminal,
          std::ostream* out) {
  return Soaking(options, makers, isTerminal, out).Run();
}

}  // namespace zefs::test
