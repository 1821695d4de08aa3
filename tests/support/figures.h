#pragma once

#include <cstdio>
#include <map>
#include <mutex>
#include <string>

namespace zefs::test {

/// Tells how much a test has done: "figure COUNT KIND" on a line of its own on standard output. The
/// figures of docs/reliability.md are the sums of these lines by kind. `kind` is words in the
/// plural, such as "crash points of a flush".
inline void TellFigure(const std::string& kind, long count) {
  std::printf("figure %ld %s\n", count, kind.c_str());
  std::fflush(stdout);
}

/// Adds `count` to a figure that is told when the process ends by itself; a child that leaves by
/// _exit tells nothing. For what is done piece by piece. Safe from any thread.
inline void CountFigure(const std::string& kind, long count = 1) {
  class Sums {
   public:
    ~Sums() {
      for (const auto& [name, sum] : sums_) {
        TellFigure(name, sum);
      }
    }
    void Add(const std::string& name, long more) {
      const std::lock_guard<std::mutex> lock(mutex_);
      sums_[name] += more;
    }

   private:
    std::mutex mutex_;
    std::map<std::string, long> sums_;
  };
  static Sums sums;
  sums.Add(kind, count);
}

}  // namespace zefs::test
