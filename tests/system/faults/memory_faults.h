#pragma once

namespace zefs::test {

/// Who asks for memory: C++ code by operator new, or C code, such as LMDB's, by malloc, calloc and
/// realloc. Under a sanitizer, which owns these, the second never fails and counts nothing.
enum class Allocator { kNew, kMalloc };

/// Memory that runs out, for programs that compile memory_faults.cc. One state for the process;
/// while nothing is watched every allocation goes through. Safe from any thread, but for Start,
/// Stop and FailNth, which are for when no other thread allocates.
class MemoryFaults {
 public:
  /// Allocations count from now on. Forgets the fault and the counts so far.
  static void Start();
  static void Stop();

  /// The `nth` allocation from Start on finds no memory, and, if `forGood`, nor do all after it.
  static void FailNth(Allocator allocator, int nth, bool forGood);

  static int Count(Allocator allocator);  ///< since Start
  static bool Fired();                    ///< since Start

  /// Blocks of operator new that have not been freed, of the whole process.
  static long Live();

  /// Code of the test on this thread: its allocations neither count nor fail.
  class Spared {
   public:
    Spared();
    ~Spared();
    Spared(const Spared&) = delete;
    Spared& operator=(const Spared&) = delete;
  };
};

}  // namespace zefs::test
