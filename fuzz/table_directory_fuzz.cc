// Any damage to a table directory: the library loads it, or refuses it, and does everything that is
// asked of a table, without a crash of its own, without a hang and without an allocation out of all
// proportion. LMDB, which does not check the pages that it reads, may die of a damaged database:
// that is counted by what was damaged, and no finding. Each input is a sound directory and what is
// done to it (table_directory/case.h); it is lived in a child process.
//
// With ZEFS_FUZZ_KEEP=DIRECTORY findings are kept there, as are the first crashes of LMDB of each
// kind, and do not end the run.

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <unistd.h>

#include <boost/filesystem/operations.hpp>

#include "fuzz/fuzz_support.h"
#include "fuzz/table_directory/case.h"
#include "fuzz/table_directory/life.h"
#include "fuzz/table_directory/tally.h"
#include "fuzz/table_directory/watched_child.h"
#include "tests/support/temp_dir.h"

namespace {

using zefs::fuzz::Case;
using zefs::fuzz::Culprit;
using zefs::fuzz::Damage;
using zefs::fuzz::Ending;
using zefs::fuzz::Require;

/// Where the lives are lived: in memory, if there is such a place.
std::string WorkDirectory() {
  constexpr const char* kInMemory = "/dev/shm";
  if (::access(kInMemory, W_OK) == 0) {
    ::setenv("TMPDIR", kInMemory, 0);
  }
  static const zefs::test::TempDir directory;
  return directory.path().string();
}

/// Makes the directory and damages it. False if LMDB has not survived a damage of records.
bool Prepare(const Case& input, const std::string& directory, Ending* ending) {
  zefs::fuzz::WriteDirectory(input.Files(), directory);
  bool records = false;
  for (const Damage& damage : input.damages) {
    records = records || IsOfRecords(damage.kind);
  }
  if (records) {
    *ending = zefs::fuzz::RunWatched([&] {
      for (const Damage& damage : input.damages) {
        if (IsOfRecords(damage.kind)) {
          ApplyToRecords(damage, directory);
        }
      }
      return std::string();
    });
    if (ending->culprit != Culprit::kNone) {
      return false;
    }
  }
  for (const Damage& damage : input.damages) {
    if (!IsOfRecords(damage.kind)) {
      ApplyToFiles(damage, directory);
    }
  }
  return true;
}

void Judge(const Case& input, const Ending& ending) {
  const bool finding = ending.culprit == Culprit::kOwn;
  if (!finding) {
    return;
  }
  std::fprintf(stderr, "%s\n%s\n", ending.what.c_str(), ending.words.c_str());
  for (const Damage& damage : input.damages) {
    std::fprintf(stderr, "damage: %s\n", NameOf(damage.kind));
  }
  Require(zefs::fuzz::Tally::Keep(input, "finding"), "a finding");
}

}  // namespace

extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size,
                                               std::size_t most, unsigned int seed) {
  Case input = zefs::fuzz::ReadCase(data, size);
  zefs::fuzz::MutateCase(seed, &input);
  const std::string changed = WriteCase(input);
  const std::size_t taken = std::min(changed.size(), most);
  std::copy_n(changed.begin(), taken, data);
  return taken;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static zefs::fuzz::Tally tally;
  const Case input = zefs::fuzz::ReadCase(data, size);
  const std::string directory = WorkDirectory() + "/table";
  Ending ending;
  if (Prepare(input, directory, &ending)) {
    const int lives = input.plan.SecondLife() ? 2 : 1;
    for (int i = 0; i < lives && ending.culprit == Culprit::kNone; ++i) {
      ending = zefs::fuzz::RunWatched([&] {
        const zefs::fuzz::LifeResult result = Live(input.plan, directory);
        return result.load + (result.failures == 0 ? "" : ", operations failed");
      });
      tally.CountLife(input, ending);
    }
  } else {
    tally.CountLife(input, ending);
  }
  boost::filesystem::remove_all(directory);
  boost::filesystem::remove_all(directory + "-copy");
  Judge(input, ending);
  return 0;
}
